/* SPDX-License-Identifier: Apache-2.0 */
/* Export marker of libvelmar_sastox: every name a daemon may use carries it; everything
 * else in the library is hidden. Valid C11 and C++. */
#ifndef DM_EXPORT_H
#define DM_EXPORT_H

#ifdef __cplusplus
#define DM_EXTERN_C_BEGIN extern "C" {
#define DM_EXTERN_C_END }
#else
#define DM_EXTERN_C_BEGIN
#define DM_EXTERN_C_END
#endif

#define DM_EXPORT __attribute__((visibility("default")))

#endif /* DM_EXPORT_H */
