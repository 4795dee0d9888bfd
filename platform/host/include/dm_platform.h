/* SPDX-License-Identifier: Apache-2.0 */
/*
 * The platform functions that the core library calls and never defines. On a device
 * they come from the platform's own libraries; on a Linux host from libvelmar_hostplat.
 * Integer results are 0 on success unless a comment says otherwise.
 *
 * Valid C11 and C++.
 */
#ifndef DM_PLATFORM_H
#define DM_PLATFORM_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DM_PLATFORM_API __attribute__((visibility("default")))

/* ---- Bounds-checked memory and string functions -------------------------------------
 * None of them writes at or past dest + dest_max. The host layer's failure codes, and
 * what a failure leaves in the destination, are listed in host_platform.h. */
DM_PLATFORM_API int memset_s(void *dest, size_t dest_max, int c, size_t count);
DM_PLATFORM_API int memcpy_s(void *dest, size_t dest_max, const void *src, size_t count);
DM_PLATFORM_API int memmove_s(void *dest, size_t dest_max, const void *src, size_t count);
DM_PLATFORM_API int strncpy_s(char *dest, size_t dest_max, const char *src, size_t count);
DM_PLATFORM_API int strcpy_s(char *dest, size_t dest_max, const char *src);
/* Characters written (without the terminating zero), or -1. */
DM_PLATFORM_API int sprintf_s(char *dest, size_t dest_max, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- Device log service ------------------------------------------------------------
 * Levels: 0 debug, 1 info, 2 warning, 3 error. Any thread may call these; each line is
 * written whole. On the host the enabled level comes from VELMAR_LOG_LEVEL and lines go
 * to standard error or VELMAR_LOG_FILE (see docs/host-platform.md). The Dlog functions
 * leave errno unchanged. */
DM_PLATFORM_API int CheckLogLevel(int module_id, int level); /* 1 when enabled */
DM_PLATFORM_API void DlogErrorInner(int module_id, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
DM_PLATFORM_API void DlogWarnInner(int module_id, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
DM_PLATFORM_API void DlogInfoInner(int module_id, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
DM_PLATFORM_API void DlogDebugInner(int module_id, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

/* ---- Platform adapter ---------------------------------------------------------------
 * Thread and mutex functions return 0 or an errno value (EINVAL for a null argument);
 * the file functions return what the system call returns, with errno set on -1. */
typedef pthread_t mmThread;
typedef pthread_mutex_t mmMutex_t;
typedef struct {
    void *(*procFunc)(void *);
    void *pulArg;
} mmUserBlock_t;
/* A flag of 1 means "apply the value beside it". */
typedef struct {
    int detachFlag;
    int priorityFlag;
    int priority;
    int policyFlag;
    int policy;
    int stackFlag;
    unsigned int stackSize;
} mmThreadAttr;
typedef struct {
    int64_t tv_sec;
    int64_t tv_nsec;
} mmTimespec;

DM_PLATFORM_API int mmCreateTask(mmThread *thread, mmUserBlock_t *block);
/* Non-zero when the system refuses the attributes (for instance SCHED_RR without the
 * privilege), so that the caller can fall back to mmCreateTask. */
DM_PLATFORM_API int mmCreateTaskWithThreadAttr(mmThread *thread, const mmUserBlock_t *block,
                                               const mmThreadAttr *attr);
/* Names the calling thread; longer names are cut to their first 15 characters. */
DM_PLATFORM_API int mmSetCurrentThreadName(const char *name);
DM_PLATFORM_API int mmMutexLock(mmMutex_t *m);
DM_PLATFORM_API int mmMutexUnLock(mmMutex_t *m);
DM_PLATFORM_API int mmMutexDestroy(mmMutex_t *m);
DM_PLATFORM_API mmTimespec mmGetTickCount(void); /* CLOCK_MONOTONIC */
/* Sleeps at least `ms` milliseconds, resuming after signals. */
DM_PLATFORM_API int mmSleep(unsigned int ms);
/* One read() / write(): a short count or EINTR is the caller's to handle. */
DM_PLATFORM_API ssize_t mmReadFile(int fd, void *buf, unsigned int len);        /* count or -1 */
DM_PLATFORM_API ssize_t mmWriteFile(int fd, const void *buf, unsigned int len); /* count or -1 */
DM_PLATFORM_API int mmCloseFile(int fd);
DM_PLATFORM_API int mmSocket(int domain, int type, int protocol); /* descriptor or -1 */

/* ---- Device HAL: HDC channel (host simulator) ----------------------------------------- */
typedef void *HDC_SERVER;
typedef void *HDC_CLIENT;
typedef void *HDC_SESSION;
struct drvHdcMsg; /* opaque */
struct drvHdcCapacity {
    uint32_t chan_type;
    uint32_t max_segment;
};

DM_PLATFORM_API int drvHdcGetCapacity(struct drvHdcCapacity *capacity);
DM_PLATFORM_API int drvHdcServerCreate(int dev_id, int service_type, HDC_SERVER *server);
DM_PLATFORM_API int drvHdcServerDestroy(HDC_SERVER server);
DM_PLATFORM_API int drvHdcSessionAccept(HDC_SERVER server, HDC_SESSION *session);
DM_PLATFORM_API int drvHdcClientCreate(HDC_CLIENT *client, int max_sessions, int service_type,
                                       int flags);
DM_PLATFORM_API int drvHdcClientDestroy(HDC_CLIENT client);
/* 35 while no server of that device is listening yet. */
DM_PLATFORM_API int drvHdcSessionConnect(int peer_node, int peer_dev_id, HDC_CLIENT client,
                                         HDC_SESSION *session);
DM_PLATFORM_API int drvHdcSessionClose(HDC_SESSION session);
DM_PLATFORM_API int drvHdcSetSessionReference(HDC_SESSION session);
DM_PLATFORM_API int drvHdcAllocMsg(HDC_SESSION session, struct drvHdcMsg **msg, int count);
DM_PLATFORM_API int drvHdcFreeMsg(struct drvHdcMsg *msg);
DM_PLATFORM_API int drvHdcAddMsgBuffer(struct drvHdcMsg *msg, char *buf, int len);
DM_PLATFORM_API int drvHdcGetMsgBuffer(struct drvHdcMsg *msg, int index, char **buf, int *len);
DM_PLATFORM_API int halHdcSend(HDC_SESSION session, struct drvHdcMsg *msg, uint64_t flag,
                               uint32_t timeout_ms);
/* 16 when the time-out passes. */
DM_PLATFORM_API int halHdcRecv(HDC_SESSION session, struct drvHdcMsg *msg, int buf_len,
                               uint64_t flag, int *recv_count, uint32_t timeout_ms);
/* attr 1: peer uid, attr 2: run environment (1..4). */
DM_PLATFORM_API int halHdcGetSessionAttr(HDC_SESSION session, int attr, int *value);

/* ---- Device HAL: device-manager message channel (host simulator) ---------------------- */
DM_PLATFORM_API int devdrv_open_device_manager(void); /* descriptor, or negative */
DM_PLATFORM_API int devdrv_imu_dmp_msg_send(int fd, uint32_t dev_id, const void *data,
                                            uint32_t len);
DM_PLATFORM_API int devdrv_imu_dmp_msg_recv(int fd, uint32_t dev_id, void *buf,
                                            uint32_t capacity, uint8_t *len);

#ifdef __cplusplus
}
#endif

#endif /* DM_PLATFORM_H */
