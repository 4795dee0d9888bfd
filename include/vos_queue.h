/* Message queues. Valid C11 and C++. */
#ifndef VOS_QUEUE_H
#define VOS_QUEUE_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

DM_EXTERN_C_END

#endif /* VOS_QUEUE_H */
