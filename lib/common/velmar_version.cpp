// SPDX-License-Identifier: Apache-2.0
// The version of the library as built, for programs that want to compare it with the
// headers they were compiled with (VELMAR_SASTOX_VERSION_STRING).
#include "velmar_ext.h"

const char *velmar_version(void)
{
    return VELMAR_SASTOX_VERSION_STRING;
}
