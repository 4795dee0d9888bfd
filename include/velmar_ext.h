/* Extensions of libvelmar_sastox: names that the library exports beyond its specified
 * interface. Every one carries the reserved prefix velmar_ (functions) or VELMAR_
 * (macros), so that it can never clash with a specified name; docs/extensions.md
 * describes each. Valid C99, C11 and C++. */
#ifndef VELMAR_EXT_H
#define VELMAR_EXT_H

#include "dm_export.h"
#include "velmar_version.h"

DM_EXTERN_C_BEGIN

/* ---- Version ------------------------------------------------------------------------
 * The version of the library actually loaded, "MAJOR.MINOR.PATCH"; compare it with
 * VELMAR_SASTOX_VERSION_STRING, the version of the headers a program was compiled
 * with. The string is static: never null, never to be freed. Any thread. */
DM_EXPORT const char *velmar_version(void);

/* ---- Return codes in words ------------------------------------------------------------
 * A short English reading of `code` as returned by the library function named
 * `function` ("dm_send_req", "dm_hdc_init", "vos_sm_p", ...). The same number means
 * different things in different layers (dm_send_req's 27 is its send failure, a
 * transport's 27 an errno; the OS layer's codes are unsigned 0x2000xxxx values, which may
 * be passed as they are or after a conversion to a signed 32-bit int), so the name of the
 * function matters. With a null or unknown name the reading is the most general one and
 * starts with "ambiguous". A code that the function does not return reads as such.
 *
 * Codes that a layer passes through from below (a system call's errno, a device HAL
 * code, a bounds-checked function's status) are read as what the host platform layer
 * returns; a device build's platform libraries may use other numbers.
 *
 * The result is a static string: never null, never to be freed, valid for the life of
 * the process. Any thread, at any time. */
DM_EXPORT const char *velmar_strerror(const char *function, long long code);

DM_EXTERN_C_END

#endif /* VELMAR_EXT_H */
