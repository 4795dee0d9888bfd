/* Message framework: records, context, registry, commands, requests. Valid C11 and C++. */
#ifndef DM_MSG_H
#define DM_MSG_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

DM_EXTERN_C_END

#endif /* DM_MSG_H */
