// SPDX-License-Identifier: Apache-2.0
#include "ipc/devmgr_env.h"

#include "host_devmgr.h"
#include "support/private_dir.h"

namespace velmar::test {

namespace {

auto *const g_env = static_cast<PrivateDir *>(
    ::testing::AddGlobalTestEnvironment(new PrivateDir(HOST_DEVMGR_DIR_ENV, host_devmgr_dir)));

} // namespace

const std::string &devmgr_dir() { return g_env->dir(); }

bool wait_readable(int fd, int timeout_ms)
{
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, timeout_ms) == 1;
}

} // namespace velmar::test
