/* Timed locks, SPL lock and binary semaphores. Valid C11 and C++. */
#ifndef VOS_SM_H
#define VOS_SM_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

DM_EXTERN_C_END

#endif /* VOS_SM_H */
