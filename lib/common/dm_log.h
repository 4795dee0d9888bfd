/* SPDX-License-Identifier: Apache-2.0 */
// The library's one logging facility. Every line goes to the device log service with
// module 10 and the prefix "[path:line][device monitor] [function line] ".
//
// - DM_LOG_ERR: error lines, through the per-source-file rate limiter (at most one
//   error line per source file in 3000 ms).
// - DM_LOG_WARN / DM_LOG_INFO / DM_LOG_DEBUG: written only when CheckLogLevel(10, level)
//   answers 1 for level 2 / 1 / 0; no limiter.
// - DM_CHECK_FAILED("(expr)"): the "Drv_check" warning of a failed argument check.
// - DM_ASSERT_FAILED("expr"): the "Assert" error of a failed close or invariant.
//
// Writing on behalf of a caller. Operators grep the log for the function that reports a
// fault, and that is the function a reader of the interface knows, not the small helper
// it was split into. A helper that logs therefore takes its caller's name as a
// `const char *writer` parameter (the caller passes __func__) and uses the _AS forms,
// which put that name in the prefix and in the Drv_check / Assert text.
// The line number stays the line of the log call itself, in the helper: the prefix's
// "path:line" must point at the statement that wrote the text (__FILE__ is the helper's
// file too), and each statement keeps a line of its own, whereas the caller's line would
// give several different texts one number.
#pragma once

#include <atomic>
#include <cstdint>

#include "dm_platform.h"

namespace velmar::log {

constexpr int kModule = 10;
constexpr int kLevelDebug = 0;
constexpr int kLevelInfo = 1;
constexpr int kLevelWarn = 2;
constexpr uint64_t kErrorIntervalMs = 3000;
constexpr uint32_t kSiteLimit = 1;
constexpr uint32_t kFileLimit = 29;

// One per source file. Atomics because any thread may log.
struct FileLimiter {
    std::atomic<uint64_t> stamp_ms{0};
    std::atomic<uint32_t> count{0};
};
using SiteCounter = std::atomic<uint32_t>;

// Wall clock in milliseconds: seconds * 1000 + microseconds / 1000.
uint64_t wall_clock_ms();

// Decides whether an error line at `site` may be written now, and updates the counters.
bool admit_error(FileLimiter &file, SiteCounter &site, uint64_t now_ms);

} // namespace velmar::log

// The limiter belongs to a source unit. A unit that is split over several files (the
// poller, the framework context) still writes at most one error line per window, as
// one file would: its CMakeLists gives those files DM_LOG_UNIT=<name> (see
// velmar_log_unit in cmake/LogUnit.cmake), and exactly one of them says
// DM_LOG_DEFINE_UNIT(). Any other file is a unit of its own.
#ifdef DM_LOG_UNIT
namespace velmar::log::unit {
extern FileLimiter DM_LOG_UNIT;
} // namespace velmar::log::unit
namespace {
[[maybe_unused]] ::velmar::log::FileLimiter &dm_log_file_limiter_ = ::velmar::log::unit::DM_LOG_UNIT;
} // namespace
#define DM_LOG_DEFINE_UNIT()                                                                      \
    namespace velmar::log::unit {                                                                 \
    FileLimiter DM_LOG_UNIT;                                                                      \
    }
#else
namespace {
[[maybe_unused]] ::velmar::log::FileLimiter dm_log_file_limiter_;
} // namespace
#define DM_LOG_DEFINE_UNIT()
#endif

#define DM_LOG_PREFIX "[%s:%d][%s] [%s %d] "
#define DM_LOG_PREFIX_ARGS_(writer) __FILE__, __LINE__, "device monitor", (writer), __LINE__

#define DM_LOG_ERR_AS(writer, fmt, ...)                                                           \
    do {                                                                                          \
        static ::velmar::log::SiteCounter dm_log_site_{0};                                        \
        if (::velmar::log::admit_error(dm_log_file_limiter_, dm_log_site_,                        \
                                       ::velmar::log::wall_clock_ms())) {                         \
            DlogErrorInner(::velmar::log::kModule, DM_LOG_PREFIX fmt,                             \
                           DM_LOG_PREFIX_ARGS_(writer) __VA_OPT__(, ) __VA_ARGS__);               \
        }                                                                                         \
    } while (0)

#define DM_LOG_LEVELED_(level, sink, writer, fmt, ...)                                            \
    do {                                                                                          \
        if (CheckLogLevel(::velmar::log::kModule, (level)) == 1) {                                \
            sink(::velmar::log::kModule, DM_LOG_PREFIX fmt,                                       \
                 DM_LOG_PREFIX_ARGS_(writer) __VA_OPT__(, ) __VA_ARGS__);                         \
        }                                                                                         \
    } while (0)

#define DM_LOG_WARN_AS(writer, fmt, ...)                                                          \
    DM_LOG_LEVELED_(::velmar::log::kLevelWarn, DlogWarnInner, writer, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_INFO_AS(writer, fmt, ...)                                                          \
    DM_LOG_LEVELED_(::velmar::log::kLevelInfo, DlogInfoInner, writer, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_DEBUG_AS(writer, fmt, ...)                                                         \
    DM_LOG_LEVELED_(::velmar::log::kLevelDebug, DlogDebugInner, writer, fmt __VA_OPT__(, ) __VA_ARGS__)

#define DM_CHECK_FAILED_AS(writer, text)                                                          \
    DM_LOG_WARN_AS(writer, "[%s %d] Drv_check:%s\n", (writer), __LINE__, text)
#define DM_ASSERT_FAILED_AS(writer, text)                                                         \
    DM_LOG_ERR_AS(writer, "[%s %d] Assert:%s\n", (writer), __LINE__, text)

// The plain forms write as the function they are called in.
#define DM_LOG_ERR(fmt, ...) DM_LOG_ERR_AS(__func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_WARN(fmt, ...) DM_LOG_WARN_AS(__func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_INFO(fmt, ...) DM_LOG_INFO_AS(__func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_DEBUG(fmt, ...) DM_LOG_DEBUG_AS(__func__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_CHECK_FAILED(text) DM_CHECK_FAILED_AS(__func__, text)
#define DM_ASSERT_FAILED(text) DM_ASSERT_FAILED_AS(__func__, text)
