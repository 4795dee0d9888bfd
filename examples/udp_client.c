/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A UDP client on libvelmar_sastox: it binds a UDP interface to 127.0.0.1 (any port) and
 * sends a few requests to an echo server (udp_echo_server). The server leaves the request
 * "ignore me" unanswered: the framework sends it again, and when the last period has
 * passed the interface's time-out handler supplies the answer. The client shortens the
 * re-send period from 30 s to a fraction of a second through set_retry.
 *
 *   udp_client <server-ip> <server-port>
 *
 * Exit status 0 when every request got the answer expected of it.
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include "velmar_sastox.h"

#define RETRIES 2       /* re-sends after the first send */
#define PERIOD_MS 300   /* between sends; the UDP default is 30000 */
#define REQUESTS 4
#define WAIT_LIMIT_MS 5000

static const char g_timeout_text[] = "(no answer in time)";

struct request {
    const char *label;
    char text[DM_MAX_DATA_LEN];
    uint16_t len;
    int expect_timeout;
    long sent_ms;
};

static struct request g_requests[REQUESTS];
static atomic_int g_answers;
static atomic_int g_failures;
static struct timespec g_start;

static long ms_now(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long)((now.tv_sec - g_start.tv_sec) * 1000 + (now.tv_nsec - g_start.tv_nsec) / 1000000);
}

static const char *clock_text(void)
{
    static _Thread_local char text[64];
    struct timespec now;
    struct tm tm;

    clock_gettime(CLOCK_REALTIME, &now);
    localtime_r(&now.tv_sec, &tm);
    snprintf(text, sizeof(text), "%02d:%02d:%02d.%03d", tm.tm_hour, tm.tm_min, tm.tm_sec,
             (int)(now.tv_nsec / 1000000));
    return text;
}

/* The interface's time-out handler: builds the answer of a request that got none. */
static int32_t on_timeout(DM_DATA_ST *req_data, DM_DATA_ST *rsp_data)
{
    (void)req_data;
    rsp_data->data = (uint8_t *)g_timeout_text;
    rsp_data->data_len = (uint16_t)strlen(g_timeout_text);
    return 0;
}

/* Response callback, on the poller thread: once per request, a real or a time-out answer. */
static int32_t on_response(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    struct request *req = *(struct request **)user_data;
    int timed_out = strcmp(intf->name, "selfloop") == 0;
    const DM_DATA_ST *got = &msg->data;
    int shown = got->data_len < 40 ? got->data_len : 40;
    int ok = timed_out ? req->expect_timeout
                       : !req->expect_timeout && got->data_len == req->len &&
                             memcmp(got->data, req->text, req->len) == 0;

    (void)len;
    printf("%s [client] answer to %s after %ld ms: %.*s%s (%u bytes)%s - %s\n", clock_text(),
           req->label, ms_now() - req->sent_ms, shown, (const char *)got->data,
           shown < got->data_len ? "..." : "", got->data_len,
           timed_out ? ", made by the time-out handler" : "", ok ? "as expected" : "WRONG");
    if (!ok) {
        atomic_fetch_add(&g_failures, 1);
    }
    atomic_fetch_add(&g_answers, 1);
    return 0;
}

static void add_request(int i, const char *label, const char *text, uint16_t len, int expect_timeout)
{
    g_requests[i].label = label;
    memcpy(g_requests[i].text, text, len);
    g_requests[i].len = len;
    g_requests[i].expect_timeout = expect_timeout;
}

static int send_request(DM_INTF_ST *udp, DM_ADDR_ST *server, struct request *req)
{
    DM_DATA_ST data = {req->len, (uint8_t *)req->text};
    int ret;

    req->sent_ms = ms_now();
    /* The framework copies the data and the user data (here the address of the record). */
    ret = dm_send_req(udp, server, DM_UDP_ADDR_LEN, &data, on_response, &req, sizeof(req));
    printf("%s [client] sent %s (%u bytes) -> %d\n", clock_text(), req->label, req->len, ret);
    return ret;
}

static int make_interface(DM_CB_ST *cb, DM_INTF_ST **udp)
{
    struct sockaddr_in sin;
    DM_ADDR_ST own;

    memset(&sin, 0, sizeof(sin));
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memset(&own, 0, sizeof(own));
    own.kind = DM_ADDR_KIND_UDP;
    own.family = DM_ADDR_FAMILY_UDP;
    memcpy(own.sa, &sin, sizeof(sin));
    return dm_udp_init(udp, cb, on_timeout, &own, NULL, 0);
}

int main(int argc, char **argv)
{
    static char block[DM_MAX_DATA_LEN];
    struct sockaddr_in sin;
    DM_ADDR_ST server;
    DM_CB_ST *cb = NULL;
    DM_INTF_ST *udp = NULL;
    int i;
    int sent = 0;

    if (argc != 3) {
        fprintf(stderr, "usage: udp_client <server-ip> <server-port>\n");
        return 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    clock_gettime(CLOCK_MONOTONIC, &g_start);
    memset(&sin, 0, sizeof(sin));
    sin.sin_family = AF_INET;
    sin.sin_port = htons((uint16_t)atoi(argv[2]));
    if (inet_pton(AF_INET, argv[1], &sin.sin_addr) != 1) {
        fprintf(stderr, "udp_client: not an IPv4 address: %s\n", argv[1]);
        return 2;
    }
    memset(&server, 0, sizeof(server));
    server.kind = DM_ADDR_KIND_UDP;
    server.family = DM_ADDR_FAMILY_UDP;
    memcpy(server.sa, &sin, sizeof(sin));

    for (i = 0; i < DM_MAX_DATA_LEN; i++) {
        block[i] = (char)('a' + i % 26);
    }
    add_request(0, "\"hello\"", "hello", 5, 0);
    add_request(1, "\"temperature?\"", "temperature?", 12, 0);
    add_request(2, "a full 4096-byte block", block, DM_MAX_DATA_LEN, 0);
    add_request(3, "\"ignore me\"", "ignore me", 9, 1);

    if (dm_init(&cb) != 0 || make_interface(cb, &udp) != 0) {
        fprintf(stderr, "udp_client: set-up failed\n");
        dm_destroy(cb);
        return 1;
    }
    udp->set_retry(udp, RETRIES, PERIOD_MS);
    printf("%s [client] sending to %s:%s; a request without answer is sent %d more times, "
           "%d ms apart, and its time-out answer comes with the last re-send\n",
           clock_text(), argv[1], argv[2], RETRIES, PERIOD_MS);
    for (i = 0; i < REQUESTS; i++) {
        sent += send_request(udp, &server, &g_requests[i]) == 0;
    }
    while (atomic_load(&g_answers) < sent && ms_now() < WAIT_LIMIT_MS) {
        struct timespec nap = {0, 5 * 1000 * 1000};
        nanosleep(&nap, NULL);
    }
    i = sent == REQUESTS && atomic_load(&g_answers) == REQUESTS && atomic_load(&g_failures) == 0;
    printf("%s [client] %d of %d answers as expected: %s\n", clock_text(),
           atomic_load(&g_answers) - atomic_load(&g_failures), REQUESTS, i ? "success" : "FAILED");
    dm_destroy(cb);
    return i ? 0 : 1;
}
