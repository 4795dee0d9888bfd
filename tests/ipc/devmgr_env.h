/* SPDX-License-Identifier: Apache-2.0 */
// Gives the test program a private device-manager directory before its first simulator
// call, so that programs running side by side (other builds, other developers) never
// see each other's devices. The directory is removed when the program ends.
#pragma once

#include <poll.h>

#include <string>

#include "support/waiting.h"

namespace velmar::test {

const std::string &devmgr_dir();

// True when `fd` becomes readable within `timeout_ms`.
bool wait_readable(int fd, int timeout_ms);

} // namespace velmar::test
