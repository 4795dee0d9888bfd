/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The skeleton of a daemon on libvelmar_sastox (docs/daemon.md explains each step):
 *
 *   1. block SIGINT and SIGTERM before dm_init, so that the poller thread, which inherits
 *      the mask, never takes them;
 *   2. dm_init, dm_cmd_register, then the transports (here one UDP interface);
 *   3. main() waits for SIGINT or SIGTERM with sigwait: everything else happens on the
 *      poller thread;
 *   4. dm_destroy, from main().
 *
 *   daemon_skeleton [port]        serve UDP on 127.0.0.1:port (0, the default: any port)
 *   daemon_skeleton --self-test   send itself one request that is answered and one that
 *                                 times out, tell them apart, then stop itself with SIGTERM
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "velmar_sastox.h"

static const char g_timed_out[] = "(timed out)";
static DM_INTF_ST *g_loop;   /* the context's self-loop: time-out answers arrive on it */
static atomic_int g_results; /* self-test: one bit per expected outcome */

/* Command handler, on the poller thread: answer every request with its own payload,
 * except "ignore me". Answer on the interface it came in on, with its addr, addr_len and
 * req_id unchanged. */
static int32_t on_request(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    (void)user_data;
    (void)len;
    if (msg->data.data_len == 9 && memcmp(msg->data.data, "ignore me", 9) == 0) {
        return 0;
    }
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

/* The interface's time-out handler, on the poller thread: the stand-in answer. Its bytes
 * must outlive the call, hence static storage. */
static int32_t on_timeout(DM_DATA_ST *req_data, DM_DATA_ST *rsp_data)
{
    (void)req_data;
    rsp_data->data = (uint8_t *)g_timed_out;
    rsp_data->data_len = (uint16_t)(sizeof(g_timed_out) - 1);
    return 0;
}

/* Response callback, on the poller thread, exactly once per accepted request. A stand-in
 * answer arrives on the self-loop interface, a real one on the interface the request went
 * out on: that alone tells them apart for every transport but the self-loop itself. */
static int32_t on_response(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    const char *label = *(const char **)user_data; /* our copy of the pointer we passed */
    int timed_out = intf == g_loop;

    (void)len;
    printf("%s: %s, %u bytes: %.*s\n", label, timed_out ? "timed out" : "answered",
           msg->data.data_len, (int)msg->data.data_len, (const char *)msg->data.data);
    atomic_fetch_or(&g_results, timed_out ? 2 : 1);
    if (atomic_load(&g_results) == 3) {
        kill(getpid(), SIGTERM); /* self-test done: stop the way an operator would */
    }
    return 0;
}

static int send_text(DM_INTF_ST *udp, DM_ADDR_ST *to, const char *label, const char *text)
{
    DM_DATA_ST data = {(uint16_t)strlen(text), (uint8_t *)text};
    /* addr_len: any non-zero value; sizeof(DM_ADDR_ST) is the natural one. User data: the
     * address of a pointer and 8 bytes; the framework keeps its own copy. */
    return dm_send_req(udp, to, sizeof(*to), &data, on_response, &label, sizeof(label));
}

static int self_test(DM_INTF_ST *udp)
{
    struct sockaddr_in own;
    socklen_t own_len = sizeof(own);
    DM_ADDR_ST to = udp->addr; /* kind 98, family 2, and the bound port below */

    getsockname(udp->fd, (struct sockaddr *)&own, &own_len);
    memcpy(to.sa, &own, sizeof(own));
    udp->set_retry(udp, 1, 200); /* two sends 200 ms apart, time-out at 200 ms */
    if (send_text(udp, &to, "request 1", "hello") != 0 ||
        send_text(udp, &to, "request 2", "ignore me") != 0) {
        return -1;
    }
    return 0;
}

int main(int argc, char **argv)
{
    int self = argc > 1 && strcmp(argv[1], "--self-test") == 0;
    struct sockaddr_in sin;
    socklen_t sin_len = sizeof(sin);
    sigset_t stop;
    DM_ADDR_ST addr;
    DM_CB_ST *cb = NULL;
    DM_INTF_ST *udp = NULL;
    int sig = 0;
    int ret;

    setvbuf(stdout, NULL, _IOLBF, 0);
    /* 1. Before dm_init: every thread created from here on inherits this mask. */
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);

    /* 2. Context, handler, transports. */
    ret = dm_init(&cb);
    if (ret != 0) {
        fprintf(stderr, "daemon_skeleton: dm_init failed: %d\n", ret);
        return 1;
    }
    g_loop = dm_get_intf(cb, "selfloop", 9);
    ret = dm_cmd_register(cb, on_request, NULL, NULL, 1);
    memset(&sin, 0, sizeof(sin));
    sin.sin_family = AF_INET;
    sin.sin_port = htons((uint16_t)(argc > 1 && !self ? atoi(argv[1]) : 0));
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memset(&addr, 0, sizeof(addr));
    addr.kind = DM_ADDR_KIND_UDP;
    addr.family = DM_ADDR_FAMILY_UDP;
    memcpy(addr.sa, &sin, sizeof(sin));
    if (ret == 0) {
        ret = dm_udp_init(&udp, cb, on_timeout, &addr, NULL, 0);
    }
    if (ret == 0) {
        getsockname(udp->fd, (struct sockaddr *)&sin, &sin_len);
        printf("serving udp 127.0.0.1:%u\n", ntohs(sin.sin_port));
    }
    if (ret == 0 && self) {
        ret = self_test(udp);
    }
    if (ret != 0) {
        fprintf(stderr, "daemon_skeleton: set-up failed: %d\n", ret);
        dm_destroy(cb);
        return 1;
    }

    /* 3. Wait for the stop signal; requests are served on the poller thread meanwhile. */
    sigwait(&stop, &sig);
    printf("stopping on signal %d\n", sig);

    /* 4. Stops the poller ("do poll exit, poll state = 3" in the log), closes the
     * interfaces and frees the context. */
    dm_destroy(cb);
    return self && atomic_load(&g_results) != 3 ? 1 : 0;
}
