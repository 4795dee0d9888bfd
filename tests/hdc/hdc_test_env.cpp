// SPDX-License-Identifier: Apache-2.0
// A private HDC directory for each test program.
#include "host_hdc.h"
#include "support/private_dir.h"

namespace {

[[maybe_unused]] auto *const g_env =
    ::testing::AddGlobalTestEnvironment(new velmar::test::PrivateDir(HOST_HDC_DIR_ENV, host_hdc_dir));

} // namespace
