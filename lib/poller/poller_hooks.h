/* SPDX-License-Identifier: Apache-2.0 */
// What the message framework needs of the poller beyond the exported API, to destroy a
// context from one of its own callbacks. Hidden from the C ABI.
#pragma once

#include "dm_poller.h"

namespace velmar::poller {

// True when called on the poller's running poll thread.
bool on_poll_thread(POLLER_ST *poller);

// Runs hook(arg) on the poll thread after a destroy notice has ended the loop and the
// poller has been released: the last thing that thread does. Set it before the notice.
void set_exit_hook(POLLER_ST *poller, void (*hook)(void *arg), void *arg);

} // namespace velmar::poller
