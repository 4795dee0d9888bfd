/* SPDX-License-Identifier: Apache-2.0 */
/* Task control blocks and task entry: a fixed table of 1011 blocks (valid task numbers 1
 * to 1010), task creation with four entry arguments, deletion, look-ups between task
 * numbers, thread identifiers and per-task process numbers, and the task-side delay.
 *
 * Call task_task_info_init once before anything else. Every function may be called from
 * any thread; changes and validity checks of the table are made under g_task_splmutex.
 *
 * Result codes (unsigned 32-bit):
 *   0           success
 *   0x20000000  bad or unused task number
 *   0x20000001  no free control block, or priority 256 or more
 *   0x20000002  initialisation out of memory
 *   0x20000003  thread creation failed
 *   0x20000005  thread cancellation failed
 *   0x20000006  no live task counted
 *   0x20000011  null parameter
 *   0xFFFFFFFF  a look-up that finds nothing
 *
 * Valid C11 and C++. */
#ifndef VOS_TASK_H
#define VOS_TASK_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

#define VOS_MAX_TASK_NUM 1010U

/* A task's entry routine: called with the four arguments given at creation. */
typedef void (*VOS_TASK_ENTRY_FN)(uint64_t arg0, uint64_t arg1, uint64_t arg2, uint64_t arg3);

/* Task control block (440 bytes). Reserved words carry no behaviour in this library. */
typedef struct {
    uint64_t reserved_head[2];
    uint32_t used;               /* 1 while the block holds a task */
    uint64_t reserved_after_used;
    char name[30];               /* first 29 bytes of the task name; also the kernel name */
    char desc[51];               /* optional description, at most 50 characters */
    uint64_t tid;                /* thread identifier */
    uint64_t tid_copy;
    int64_t pid;                 /* per-task process number (vos_gen_pid_for_task) */
    uint64_t reserved_after_pid;
    VOS_TASK_ENTRY_FN pfn_local_task_entry;
    uint64_t args[4];
    uint64_t reserved_after_args;
    uint64_t prio;
    uint64_t prio_cur;
    uint64_t flags;              /* bit 0: pre-emptive */
    uint64_t stack_size;         /* 32768 when 0 was given */
    uint64_t stack_size_cur;
    uint64_t stack_frame;
    uint64_t reserved_a[8];
    uint64_t reserved_b;
    uint64_t reserved_c;
    uint64_t reserved_d[3];
    uint32_t reserved_e[2];
    uint64_t reserved_f[2];
    uint64_t reserved_g[4];
    uint8_t reserved_tail[32];
} VOS_TASK_CB_ST;

/* Sizing record: only max_task_num is used (1010 after initialisation). */
typedef struct {
    uint64_t max_task_num;
    uint64_t reserved[2];
} VOS_BASIC_TASK_INFO_ST;

/* Pair of the thread-to-task mapping table (kept for outside inspection). */
typedef struct {
    uint64_t tid;
    uint64_t task_no;
} VOS_TID2VID_ST;

/* ---- Globals ----------------------------------------------------------------------------
 * The library updates the fields that threads share without the SPL lock atomically;
 * outside readers get a momentary value. */
DM_EXPORT extern VOS_BASIC_TASK_INFO_ST g_basic_task_info;
DM_EXPORT extern VOS_TASK_CB_ST *g_p_task_cb;      /* 1011 blocks after initialisation */
DM_EXPORT extern uint64_t m_task_dyn_info[2];      /* live-task counters */
DM_EXPORT extern uint64_t *m_pul_task_prio_que;    /* 1010 entries, all 0xFFFFFFFF */
DM_EXPORT extern uint64_t m_ul_task_prio_que_len;
DM_EXPORT extern VOS_TID2VID_ST *m_p_tid2vid;      /* 1010 pairs, all 0xFFFFFFFF */
DM_EXPORT extern uint64_t m_ul_tid2vid_num;
DM_EXPORT extern int32_t g_n_local_process_id;     /* getpid() at initialisation */
DM_EXPORT extern uint8_t dispatching;              /* 1 once the table is set up */
/* Monitor storage: exported, zero-initialised, never read or written by the library. */
DM_EXPORT extern uint64_t g_ul_watch_dog_time;
DM_EXPORT extern uint64_t g_basic_monitor_info[19]; /* 152 bytes */
DM_EXPORT extern uint64_t g_ul_is_monitor_dead_cycle;
DM_EXPORT extern uint32_t g_aui_fid_msg_to_task_no[256];
DM_EXPORT extern uint64_t g_ul_switch_flag;
DM_EXPORT extern char m_ach_task_name[30];

/* ---- Set-up ------------------------------------------------------------------------------ */

/* One-time set-up of the tables and the SPL lock; new tasks start running only after it.
 * 0, or 0x20000002 (nothing stays allocated). Not to be called twice. */
DM_EXPORT uint32_t task_task_info_init(void);
/* Releases every block of the table (free_task_cb on 0..1010). */
DM_EXPORT void init_task_cb(void);
/* Writes the free values into block `task_no` and marks it unused (unless the final
 * memset_s fails: the block then stays marked in use). Ignored above 1010. */
DM_EXPORT void free_task_cb(uint32_t task_no);
/* Lowest free task number 1..1010, or 0xFFFFFFFF. The caller holds the SPL lock. */
DM_EXPORT uint32_t search_free_tcb(void);

/* ---- Creation and deletion -------------------------------------------------------------- */

/* Create a task running entry(args[0..3]) on a new detached thread named `name` (29
 * characters kept). `args` points to four values, copied. `stack_size` 0 means the system
 * default (recorded as 32768). `*out_task_no` receives the task number, or 0xFFFFFFFF when
 * the thread could not be made. Returns 0, 0x20000011, 0x20000001, 0x20000003, or 1 when
 * filling the block failed. The plain form uses the normal attribute set (flags 0), the
 * _preempt form SCHED_RR (flags 1), which needs the privilege to set real-time policies. */
DM_EXPORT uint32_t vos_create_task(const char *name, uint32_t *out_task_no, VOS_TASK_ENTRY_FN entry,
                                   uint64_t priority, uint64_t stack_size, const uint64_t *args);
DM_EXPORT uint32_t vos_create_task_preempt(const char *name, uint32_t *out_task_no,
                                           VOS_TASK_ENTRY_FN entry, uint64_t priority,
                                           uint64_t stack_size, const uint64_t *args);
/* As above with an optional description `desc` (null: empty; 50 characters kept) and
 * the creation flags (bit 0 pre-emptive). */
DM_EXPORT uint32_t vos_create_task_ex(const char *name, const char *desc, uint32_t *out_task_no,
                                      VOS_TASK_ENTRY_FN entry, uint64_t priority,
                                      uint64_t stack_size, const uint64_t *args, uint64_t flags);

/* Fills block `task_no` (the caller holds the SPL lock at `spl_level`). 0, or 1 when the
 * description cannot be copied: the block is then released, *out_task_no is 0xFFFFFFFF and
 * the SPL lock has been released. */
DM_EXPORT uint32_t vos_init_task_info(const char *name, VOS_TASK_CB_ST **out_block, const char *desc,
                                      uint32_t task_no, uint32_t *out_task_no,
                                      VOS_TASK_ENTRY_FN entry, uint64_t priority,
                                      const uint64_t *args, uint64_t spl_level,
                                      uint64_t stack_size, uint64_t flags);

/* The thread routine of every task; `arg` is 0x10000 | task number. Returns 0. */
DM_EXPORT uint64_t vos_task_entry(uint64_t arg);

/* Releases block `task_no` and cancels its thread (a task may delete itself).
 * 0, 0x20000000, 0x20000006, 0x20000005. */
DM_EXPORT uint32_t vos_delete_task(uint32_t task_no);
/* End of a task: one live task less, and block *task_no (when non-null) released. */
DM_EXPORT void vos_task_clean_up_handler(uint32_t *task_no);

/* ---- Look-ups ------------------------------------------------------------------------------ */

DM_EXPORT uint32_t vos_get_current_task_id(void); /* caller's task number, or 0xFFFFFFFF */
DM_EXPORT uint64_t vos_get_current_pid(void);     /* caller's task pid, or 0xFFFFFFFF */
/* Thread identifier of task `task_no` (0: the caller's task), or 0xFFFFFFFF. */
DM_EXPORT uint64_t vos_get_sys_task_id(uint32_t task_no);
/* 1 when `task_no` names a task in use, else 0. */
DM_EXPORT uint32_t vos_check_task_idvalid(uint32_t task_no);

/* ---- Misc ------------------------------------------------------------------------------------ */

DM_EXPORT uint32_t vos_task_delay(uint64_t ms);      /* osal_task_delay; returns 0 */
DM_EXPORT int32_t vos_gen_pid_for_task(void);        /* process id + next per-task offset */
DM_EXPORT uint64_t get_stackframe(void);             /* always 0 */
DM_EXPORT uint32_t vos_task_is_dispatching(void);    /* 1 once the table is set up */

DM_EXTERN_C_END

#endif /* VOS_TASK_H */
