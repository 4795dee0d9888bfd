/* Self-loop interface. Valid C11 and C++. */
#ifndef DM_LOOP_H
#define DM_LOOP_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

DM_EXTERN_C_END

#endif /* DM_LOOP_H */
