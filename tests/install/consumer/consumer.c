/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A small daemon built against an installed libvelmar_sastox: it answers requests on a
 * UDP port of 127.0.0.1 and sends itself one request there, as a peer would. Exit
 * status 0 when the echo came back.
 *
 * It calls nothing of the platform layer on purpose: linked with --as-needed, such a
 * program does not list libvelmar_hostplat itself, and runs only if the core library
 * finds its platform library on its own.
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include "velmar_sastox.h"

static atomic_int g_answered;
static char g_answer[64];

static int32_t echo(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user, uint32_t len)
{
    (void)user;
    (void)len;
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

static int32_t on_timeout(DM_DATA_ST *req, DM_DATA_ST *rsp)
{
    static uint8_t text[] = "timed out";
    (void)req;
    rsp->data = text;
    rsp->data_len = sizeof(text) - 1;
    return 0;
}

static int32_t on_answer(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user, uint32_t len)
{
    size_t n = msg->data.data_len < sizeof(g_answer) - 1 ? msg->data.data_len : sizeof(g_answer) - 1;
    (void)intf;
    (void)user;
    (void)len;
    memcpy(g_answer, msg->data.data, n);
    atomic_store(&g_answered, 1);
    return 0;
}

/* A UDP interface bound to an ephemeral port of 127.0.0.1; its address in *addr. */
static DM_INTF_ST *open_udp(DM_CB_ST *cb, DM_ADDR_ST *addr)
{
    struct sockaddr_in sa;
    socklen_t sa_len = sizeof(sa);
    DM_INTF_ST *intf = NULL;

    memset(addr, 0, sizeof(*addr));
    memset(&sa, 0, sizeof(sa));
    addr->kind = DM_ADDR_KIND_UDP;
    addr->family = DM_ADDR_FAMILY_UDP;
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memcpy(addr->sa, &sa, sizeof(sa));
    if (dm_udp_init(&intf, cb, on_timeout, addr, NULL, 0) != 0) {
        return NULL;
    }
    getsockname(intf->fd, (struct sockaddr *)&sa, &sa_len);
    memcpy(addr->sa, &sa, sizeof(sa));
    return intf;
}

int main(void)
{
    DM_CB_ST *cb = NULL;
    DM_INTF_ST *udp;
    DM_ADDR_ST self;
    DM_DATA_ST data = {4, (uint8_t *)"ping"};
    int waited = 0;
    int ok;

    if (strcmp(velmar_version(), VELMAR_SASTOX_VERSION_STRING) != 0) {
        fprintf(stderr, "consumer: headers of %s, library %s\n", VELMAR_SASTOX_VERSION_STRING,
                velmar_version());
        return 1;
    }
    if (dm_init(&cb) != 0 || dm_cmd_register(cb, echo, NULL, NULL, 1) != 0) {
        fprintf(stderr, "consumer: cannot set up the framework\n");
        return 1;
    }
    udp = open_udp(cb, &self);
    ok = udp != NULL && udp->set_retry(udp, 2, 500) == 0 &&
         dm_send_req(udp, &self, DM_UDP_ADDR_LEN, &data, on_answer, &cb, sizeof(cb)) == 0;
    while (ok && !atomic_load(&g_answered) && waited < 5000) {
        const struct timespec tick = {0, 10 * 1000 * 1000};
        nanosleep(&tick, NULL);
        waited += 10;
    }
    dm_destroy(cb);
    ok = ok && atomic_load(&g_answered) && strcmp(g_answer, "ping") == 0;
    printf("consumer: %s\n", ok ? "answer \"ping\" came back" : "no answer");
    return ok ? 0 : 1;
}
