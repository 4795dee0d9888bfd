/* Umbrella header of libvelmar_sastox: includes every exported header. */
#ifndef VELMAR_SASTOX_H
#define VELMAR_SASTOX_H

#include "dm_export.h"
#include "dm_list.h"
#include "dm_poller.h"

#endif /* VELMAR_SASTOX_H */
