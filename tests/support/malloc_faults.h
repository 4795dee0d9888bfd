/* SPDX-License-Identifier: Apache-2.0 */
// A replacement malloc and free for the test programs that reference it, where
// the build allows one (not under the sanitizers, whose runtimes own malloc).
#pragma once

#include "support/faults.h"
#include "support/log_capture.h"

namespace velmar::test {

extern FaultPoint g_malloc_fault;
extern FaultPoint g_calloc_fault;

// Remembers one heap block; watched_block_freed() tells whether free() has been called
// on it since. Only where kMallocReplaceable: elsewhere it stays false and LeakSanitizer
// checks instead that blocks are freed.
void watch_block(const void *block);
bool watched_block_freed();

// Blocks from malloc, calloc and realloc not yet freed: the same before and after a
// single-threaded action that leaks nothing. Always 0 where kMallocReplaceable is false;
// LeakSanitizer checks there instead.
long live_heap_blocks();

} // namespace velmar::test
