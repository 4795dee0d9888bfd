/* SPDX-License-Identifier: Apache-2.0 */
/* Shared by the strict-C11 API check files: each defines check_<subsystem>(). */
#ifndef C_API_CHECK_H
#define C_API_CHECK_H

#include <stdio.h>

extern int c_api_failures;

#define CHECK(cond)                                                                             \
    do {                                                                                        \
        if (!(cond)) {                                                                          \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);            \
            c_api_failures++;                                                                   \
        }                                                                                       \
    } while (0)

void check_list(void);
void check_poller(void);
void check_msg(void);
void check_hash(void);
void check_queue(void);
void check_vos(void);
void check_ipc(void);
void check_udp(void);
void check_hdc(void);

#endif
