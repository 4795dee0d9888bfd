/* Threads and priority attributes. Valid C11 and C++. */
#ifndef VOS_OSAL_H
#define VOS_OSAL_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

DM_EXTERN_C_END

#endif /* VOS_OSAL_H */
