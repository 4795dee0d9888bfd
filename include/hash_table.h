/* String-keyed hash table. Valid C11 and C++. */
#ifndef HASH_TABLE_H
#define HASH_TABLE_H

#include <stdint.h>

#include "dm_export.h"

DM_EXTERN_C_BEGIN

DM_EXTERN_C_END

#endif /* HASH_TABLE_H */
