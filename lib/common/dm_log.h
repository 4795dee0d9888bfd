// The library's one logging facility. Every line goes to the device log service with
// module 10 and the prefix "[path:line][device monitor] [function line] ".
//
// - DM_LOG_ERR: error lines, through the per-source-file rate limiter (at most one
//   error line per source file in 3000 ms).
// - DM_LOG_WARN / DM_LOG_INFO / DM_LOG_DEBUG: written only when CheckLogLevel(10, level)
//   answers 1 for level 2 / 1 / 0; no limiter.
// - DM_CHECK_FAILED("(expr)"): the "Drv_check" warning of a failed argument check.
// - DM_ASSERT_FAILED("expr"): the "Assert" error of a failed close or invariant.
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
#define DM_LOG_PREFIX_ARGS __FILE__, __LINE__, "device monitor", __func__, __LINE__

#define DM_LOG_ERR(fmt, ...)                                                                      \
    do {                                                                                          \
        static ::velmar::log::SiteCounter dm_log_site_{0};                                        \
        if (::velmar::log::admit_error(dm_log_file_limiter_, dm_log_site_,                        \
                                       ::velmar::log::wall_clock_ms())) {                         \
            DlogErrorInner(::velmar::log::kModule, DM_LOG_PREFIX fmt,                             \
                           DM_LOG_PREFIX_ARGS __VA_OPT__(, ) __VA_ARGS__);                        \
        }                                                                                         \
    } while (0)

#define DM_LOG_LEVELED_(level, sink, fmt, ...)                                                    \
    do {                                                                                          \
        if (CheckLogLevel(::velmar::log::kModule, (level)) == 1) {                                \
            sink(::velmar::log::kModule, DM_LOG_PREFIX fmt,                                       \
                 DM_LOG_PREFIX_ARGS __VA_OPT__(, ) __VA_ARGS__);                                  \
        }                                                                                         \
    } while (0)

#define DM_LOG_WARN(fmt, ...)                                                                     \
    DM_LOG_LEVELED_(::velmar::log::kLevelWarn, DlogWarnInner, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_INFO(fmt, ...)                                                                     \
    DM_LOG_LEVELED_(::velmar::log::kLevelInfo, DlogInfoInner, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DM_LOG_DEBUG(fmt, ...)                                                                    \
    DM_LOG_LEVELED_(::velmar::log::kLevelDebug, DlogDebugInner, fmt __VA_OPT__(, ) __VA_ARGS__)

#define DM_CHECK_FAILED(text) DM_LOG_WARN("[%s %d] Drv_check:%s\n", __func__, __LINE__, text)
#define DM_ASSERT_FAILED(text) DM_LOG_ERR("[%s %d] Assert:%s\n", __func__, __LINE__, text)
