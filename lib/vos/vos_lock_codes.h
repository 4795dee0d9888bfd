/* SPDX-License-Identifier: Apache-2.0 */
// Result codes and type numbers of the timed locks, shared by the lock and semaphore files.
#pragma once

#include <cstdint>

namespace velmar::vos {

constexpr uint32_t kLockOk = 0;
constexpr uint32_t kNullRecord = 0x20000201;
constexpr uint32_t kLockTimeout = 0x20000203;
constexpr uint32_t kLockFailed = 0x20000204;
constexpr uint32_t kRwUnlockFailed = 0x20000205;
constexpr uint32_t kBadType = 0x20000213;

constexpr int32_t kTypeBinary = 0;
constexpr int32_t kTypeCounting = 1;
constexpr int32_t kTypeMutex = 2;
constexpr int32_t kTypeReadWrite = 3;

} // namespace velmar::vos
