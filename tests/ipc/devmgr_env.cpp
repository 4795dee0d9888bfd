#include "ipc/devmgr_env.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "host_devmgr.h"

namespace velmar::test {

namespace {

class DevmgrDir : public ::testing::Environment {
public:
    void SetUp() override
    {
        char tmpl[] = "/tmp/velmar-ipc-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv(HOST_DEVMGR_DIR_ENV, tmpl, 1);
        ASSERT_EQ(std::string(host_devmgr_dir()), dir_) << "simulator used before the test set it";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string dir_;
};

DevmgrDir *const g_env =
    static_cast<DevmgrDir *>(::testing::AddGlobalTestEnvironment(new DevmgrDir));

} // namespace

const std::string &devmgr_dir() { return g_env->dir_; }

bool wait_readable(int fd, int timeout_ms)
{
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, timeout_ms) == 1;
}

} // namespace velmar::test
