/* SPDX-License-Identifier: Apache-2.0 */
/* Umbrella header of libvelmar_sastox: includes every exported header. */
#ifndef VELMAR_SASTOX_H
#define VELMAR_SASTOX_H

#include "dm_export.h"
#include "dm_list.h"
#include "dm_poller.h"
#include "dm_msg.h"
#include "dm_loop.h"
#include "hash_table.h"
#include "vos_osal.h"
#include "vos_sm.h"
#include "vos_queue.h"
#include "vos_task.h"
#include "dm_ipc.h"
#include "dm_hdc.h"
#include "dm_smbus.h"
#include "dm_udp.h"
#include "velmar_ext.h"

#endif /* VELMAR_SASTOX_H */
