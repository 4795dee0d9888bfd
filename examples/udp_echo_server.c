/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A UDP echo server on libvelmar_sastox: it binds a UDP interface to 127.0.0.1 and
 * answers every request with the request's own payload, except a request "ignore me",
 * which it leaves unanswered, so that the client's request is sent again and finally
 * times out. It runs until SIGINT or SIGTERM.
 *
 *   udp_echo_server [port [port-file]]
 *
 * port 0 (the default) takes any free port; the port is printed and, when a port file is
 * named, written into it once the server is ready.
 */
#define _POSIX_C_SOURCE 200809L

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "velmar_sastox.h"

static volatile sig_atomic_t g_stop;

static void on_signal(int sig)
{
    (void)sig;
    g_stop = 1;
}

/* Wall-clock time of day with milliseconds, so that two processes' lines line up. */
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

/* Command handler, on the poller thread: every request of the context arrives here. */
static int32_t on_request(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    static uint64_t last_req_id;
    static int repeats;
    struct sockaddr_in from;
    int shown = msg->data.data_len < 40 ? msg->data.data_len : 40;

    (void)user_data;
    (void)len;
    repeats = msg->req_id == last_req_id ? repeats + 1 : 0;
    last_req_id = msg->req_id;
    memcpy(&from, msg->addr->sa, sizeof(from));
    printf("%s [server] request %.*s%s (%u bytes, id %llx) from %s:%u%s\n", clock_text(), shown,
           (const char *)msg->data.data, shown < msg->data.data_len ? "..." : "",
           msg->data.data_len, (unsigned long long)msg->req_id, inet_ntoa(from.sin_addr),
           ntohs(from.sin_port), repeats ? " - sent again" : "");
    if (msg->data.data_len == 9 && memcmp(msg->data.data, "ignore me", 9) == 0) {
        printf("%s [server]   not answered, on purpose\n", clock_text());
        return 0;
    }
    /* The answer carries the request's identity back to the address it came from. */
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &msg->data, msg->req_id);
}

static int write_port_file(const char *path, unsigned port)
{
    char tmp[4096];
    FILE *f;

    snprintf(tmp, sizeof(tmp), "%s.tmp", path);
    f = fopen(tmp, "w");
    if (f == NULL) {
        return -1;
    }
    fprintf(f, "%u\n", port);
    fclose(f);
    return rename(tmp, path); /* readers never see a half-written file */
}

int main(int argc, char **argv)
{
    struct sockaddr_in sin;
    socklen_t sin_len = sizeof(sin);
    struct sigaction sa;
    DM_ADDR_ST addr;
    DM_CB_ST *cb = NULL;
    DM_INTF_ST *udp = NULL;
    int ret;

    setvbuf(stdout, NULL, _IOLBF, 0);
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = on_signal;
    sigaction(SIGINT, &sa, NULL);
    sigaction(SIGTERM, &sa, NULL);

    memset(&sin, 0, sizeof(sin));
    sin.sin_family = AF_INET;
    sin.sin_port = htons((uint16_t)(argc > 1 ? atoi(argv[1]) : 0));
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    memset(&addr, 0, sizeof(addr));
    addr.kind = DM_ADDR_KIND_UDP;
    addr.family = DM_ADDR_FAMILY_UDP;
    memcpy(addr.sa, &sin, sizeof(sin));

    if (dm_init(&cb) != 0) {
        fprintf(stderr, "udp_echo_server: dm_init failed\n");
        return 1;
    }
    /* Register the handler before the interface, so that no request finds none. */
    ret = dm_cmd_register(cb, on_request, NULL, NULL, 1);
    if (ret == 0) {
        ret = dm_udp_init(&udp, cb, NULL, &addr, NULL, 0);
    }
    if (ret != 0) {
        fprintf(stderr, "udp_echo_server: set-up failed: %d\n", ret);
        dm_destroy(cb);
        return 1;
    }
    getsockname(udp->fd, (struct sockaddr *)&sin, &sin_len);
    printf("%s [server] listening on 127.0.0.1:%u\n", clock_text(), ntohs(sin.sin_port));
    if (argc > 2 && write_port_file(argv[2], ntohs(sin.sin_port)) != 0) {
        perror("udp_echo_server: port file");
        dm_destroy(cb);
        return 1;
    }
    /* Requests are served on the poller thread; main only waits for a stop signal
     * (which may be delivered to any thread, hence the short naps). */
    while (!g_stop) {
        struct timespec nap = {0, 50 * 1000 * 1000};
        nanosleep(&nap, NULL);
    }
    printf("%s [server] stopping\n", clock_text());
    dm_destroy(cb);
    return 0;
}
