/* Task control blocks and task entry. Valid C11 and C++. */
#ifndef VOS_TASK_H
#define VOS_TASK_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

DM_EXTERN_C_END

#endif /* VOS_TASK_H */
