// SPDX-License-Identifier: Apache-2.0
// Bounds-checked memory and string functions of the host platform layer. The failure
// codes and what each failure leaves in the destination are documented in
// host_platform.h; the rule behind all of them is that nothing is ever written at or
// past dest + dest_max.
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "host_platform.h"

namespace {

bool dest_max_valid(size_t dest_max) { return dest_max != 0 && dest_max <= HOST_SEC_MAX_DEST; }

// Half-open byte ranges [a, a + a_len) and [b, b + b_len). Compared as integers because
// relational operators on pointers into different objects are not defined.
bool ranges_overlap(const void *a, size_t a_len, const void *b, size_t b_len)
{
    const auto pa = reinterpret_cast<uintptr_t>(a);
    const auto pb = reinterpret_cast<uintptr_t>(b);
    return pa < pb + b_len && pb < pa + a_len;
}

// The checks shared by memcpy_s and memmove_s, in the documented order. Returns 0 when
// the copy may go ahead.
int check_copy(void *dest, size_t dest_max, const void *src, size_t count)
{
    if (!dest_max_valid(dest_max)) {
        return HOST_SEC_ERANGE;
    }
    if (dest == nullptr) {
        return HOST_SEC_EINVAL;
    }
    if (src == nullptr) {
        std::memset(dest, 0, dest_max);
        return HOST_SEC_EINVAL;
    }
    if (count > dest_max) {
        std::memset(dest, 0, dest_max);
        return HOST_SEC_ERANGE;
    }
    return HOST_SEC_OK;
}

// Copies `len` characters of `src` plus a terminating zero into `dest`, after the
// checks that strcpy_s and strncpy_s share. `len` was measured with a bound, so `src`
// is never read past what the caller allowed.
int copy_string(char *dest, size_t dest_max, const char *src, size_t len)
{
    if (len >= dest_max) {
        dest[0] = '\0';
        return HOST_SEC_ETRUNC;
    }
    if (ranges_overlap(dest, len + 1, src, len + 1)) {
        return HOST_SEC_EOVERLAP;
    }
    std::memcpy(dest, src, len);
    dest[len] = '\0';
    return HOST_SEC_OK;
}

int check_string(char *dest, size_t dest_max, const char *src)
{
    if (!dest_max_valid(dest_max)) {
        return HOST_SEC_ERANGE;
    }
    if (dest == nullptr) {
        return HOST_SEC_EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return HOST_SEC_EINVAL;
    }
    return HOST_SEC_OK;
}

} // namespace

extern "C" {

int memset_s(void *dest, size_t dest_max, int c, size_t count)
{
    if (!dest_max_valid(dest_max)) {
        return HOST_SEC_ERANGE;
    }
    if (dest == nullptr) {
        return HOST_SEC_EINVAL;
    }
    if (count > dest_max) {
        // The caller meant to fill the whole buffer; filling what it owns is closest.
        std::memset(dest, c, dest_max);
        return HOST_SEC_ERANGE;
    }
    std::memset(dest, c, count);
    return HOST_SEC_OK;
}

int memcpy_s(void *dest, size_t dest_max, const void *src, size_t count)
{
    const int rc = check_copy(dest, dest_max, src, count);
    if (rc != HOST_SEC_OK) {
        return rc;
    }
    if (count == 0) {
        return HOST_SEC_OK;
    }
    if (ranges_overlap(dest, count, src, count)) {
        return HOST_SEC_EOVERLAP;
    }
    std::memcpy(dest, src, count);
    return HOST_SEC_OK;
}

int memmove_s(void *dest, size_t dest_max, const void *src, size_t count)
{
    const int rc = check_copy(dest, dest_max, src, count);
    if (rc != HOST_SEC_OK) {
        return rc;
    }
    std::memmove(dest, src, count);
    return HOST_SEC_OK;
}

int strncpy_s(char *dest, size_t dest_max, const char *src, size_t count)
{
    const int rc = check_string(dest, dest_max, src);
    if (rc != HOST_SEC_OK) {
        return rc;
    }
    if (count > dest_max) {
        dest[0] = '\0';
        return HOST_SEC_ERANGE;
    }
    return copy_string(dest, dest_max, src, strnlen(src, count));
}

int strcpy_s(char *dest, size_t dest_max, const char *src)
{
    const int rc = check_string(dest, dest_max, src);
    if (rc != HOST_SEC_OK) {
        return rc;
    }
    // Measuring up to dest_max is enough: a longer string fails anyway.
    return copy_string(dest, dest_max, src, strnlen(src, dest_max));
}

int sprintf_s(char *dest, size_t dest_max, const char *format, ...)
{
    if (!dest_max_valid(dest_max) || dest == nullptr) {
        return -1;
    }
    if (format == nullptr) {
        dest[0] = '\0';
        return -1;
    }
    va_list args;
    va_start(args, format);
    const int written = std::vsnprintf(dest, dest_max, format, args);
    va_end(args);
    if (written < 0 || static_cast<size_t>(written) >= dest_max) {
        // A truncated text would pass for a complete one; leave an empty string instead.
        dest[0] = '\0';
        return -1;
    }
    return written;
}

} // extern "C"
