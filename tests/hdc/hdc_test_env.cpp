// Gives each test program a private HDC directory before its first simulator call, so
// that programs running side by side (other builds, other developers) never see each
// other's servers. Helper processes inherit it through the environment.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "host_hdc.h"

namespace {

class HdcDir : public ::testing::Environment {
public:
    void SetUp() override
    {
        char tmpl[] = "/tmp/velmar-hdc-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv(HOST_HDC_DIR_ENV, tmpl, 1);
        ASSERT_EQ(std::string(host_hdc_dir()), dir_) << "simulator used before the test set it";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

private:
    std::string dir_;
};

[[maybe_unused]] auto *const g_env = ::testing::AddGlobalTestEnvironment(new HdcDir);

} // namespace
