/* SPDX-License-Identifier: Apache-2.0 */
/*
 * A minimal daemon on libvelmar_sastox: it creates a framework context, registers a
 * command handler and sends itself two requests through the self-loop interface. The
 * handler answers the first; the second it ignores, so that the request is sent again
 * and then times out, and the interface's time-out handler supplies the answer.
 * Every callback runs on the framework's poller thread; main() only sends and waits.
 *
 * Exit status 0 when both answers arrived as expected.
 */
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "dm_platform.h" /* mmSleep */
#include "velmar_sastox.h"

#define RETRIES 2     /* re-sends after the first send */
#define TIMEOUT_MS 80 /* period; shortened through set_retry (UDP waits 30 s) */

static mmTimespec g_start;

/* Milliseconds since main() began, for the transcript. */
static long ms_now(void)
{
    mmTimespec now = mmGetTickCount();
    return (long)((now.tv_sec - g_start.tv_sec) * 1000 + (now.tv_nsec - g_start.tv_nsec) / 1000000);
}

static atomic_int g_answers;
static atomic_int g_status_ok;
static atomic_int g_timeout_ok;

static int same_text(const DM_DATA_ST *data, const char *text)
{
    return data->data_len == strlen(text) && memcmp(data->data, text, data->data_len) == 0;
}

/* Command handler: every request of the context arrives here. */
static int32_t on_request(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    static uint8_t reply[] = "ok: 42 sensors";
    DM_DATA_ST answer = {(uint16_t)(sizeof(reply) - 1), reply};

    (void)user_data;
    (void)len;
    printf("%4ld ms  [poller] request \"%.*s\" on %s\n", ms_now(), (int)msg->data.data_len,
           (const char *)msg->data.data, intf->name);
    if (!same_text(&msg->data, "status?")) {
        printf("         [poller]   ignored\n");
        return 0;
    }
    /* The answer carries the request's identity back to where it came from. */
    return dm_send_rsp(intf, msg->addr, msg->addr_len, &answer, msg->req_id);
}

/* Builds the answer of a request that never got one. */
static int32_t on_timeout(DM_DATA_ST *req_data, DM_DATA_ST *rsp_data)
{
    static uint8_t text[] = "no answer in time";

    (void)req_data;
    rsp_data->data = text;
    rsp_data->data_len = (uint16_t)(sizeof(text) - 1);
    return 0;
}

/* Response callback: called once per request, with a real or a time-out answer. */
static int32_t on_response(DM_INTF_ST *intf, DM_MSG_ST *msg, void *user_data, uint32_t len)
{
    const char *label = *(const char **)user_data;

    (void)intf;
    (void)len;
    printf("%4ld ms  [poller] response to %s: \"%.*s\"\n", ms_now(), label,
           (int)msg->data.data_len, (const char *)msg->data.data);
    if (strcmp(label, "status") == 0) {
        atomic_store(&g_status_ok, same_text(&msg->data, "ok: 42 sensors"));
    } else {
        atomic_store(&g_timeout_ok, same_text(&msg->data, "no answer in time"));
    }
    atomic_fetch_add(&g_answers, 1);
    return 0;
}

static int send_request(DM_INTF_ST *loop, const char *text, const char *label)
{
    DM_DATA_ST data = {(uint16_t)strlen(text), (uint8_t *)text};
    /* The framework copies the user data: here the address of the label. */
    int ret = dm_send_req(loop, &loop->addr, sizeof(DM_ADDR_ST), &data, on_response, &label,
                          sizeof(label));
    printf("%4ld ms  [main] sent \"%s\" -> %d\n", ms_now(), text, ret);
    return ret;
}

int main(void)
{
    DM_CB_ST *cb = NULL;
    DM_INTF_ST *loop;
    int ok;

    setvbuf(stdout, NULL, _IOLBF, 0);
    g_start = mmGetTickCount();
    if (dm_init(&cb) != 0) {
        fprintf(stderr, "dm_init failed\n");
        return 1;
    }
    printf("%4ld ms  [main] context ready, poller thread running\n", ms_now());
    /* A positive size is required even without user data. */
    if (dm_cmd_register(cb, on_request, NULL, NULL, 1) != 0) {
        dm_destroy(cb);
        return 1;
    }
    loop = dm_get_intf(cb, "selfloop", 9);
    loop->timeout_hndl = on_timeout;
    loop->set_retry(loop, RETRIES, TIMEOUT_MS);
    printf("         [main] self-loop: %d re-sends, %d ms apart; the time-out answer comes with "
           "the last one\n",
           RETRIES, TIMEOUT_MS);

    ok = send_request(loop, "status?", "status") == 0;
    ok = send_request(loop, "reboot please", "reboot") == 0 && ok;
    while (ok && atomic_load(&g_answers) < 2 && ms_now() < 5000) {
        mmSleep(5);
    }
    ok = ok && atomic_load(&g_status_ok) && atomic_load(&g_timeout_ok);
    printf("%4ld ms  [main] %s\n", ms_now(), ok ? "both answers arrived" : "FAILED");
    dm_destroy(cb);
    return ok ? 0 : 1;
}
