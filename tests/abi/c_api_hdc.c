/* SPDX-License-Identifier: Apache-2.0 */
#include <string.h>

#include "c_api.h"
#include "velmar_sastox.h"

void check_hdc(void)
{
    char name[32];
    DM_HDC_ADDR_ST addr;
    DM_CB_ST *cb = NULL;

    memset(&addr, 0, sizeof(addr));
    addr.kind = DM_ADDR_KIND_HDC;
    addr.family = DM_ADDR_FAMILY_IPC; /* wrong family */
    CHECK(sizeof(DM_HDC_ADDR_ST) == sizeof(DM_ADDR_ST));
    CHECK(g_dm_hdc_run == 1);
    CHECK(dm_hdc_get_intf_name(12, name, sizeof(name)) == 0 && strcmp(name, "dm_hdc12") == 0);
    CHECK(dm_hdc_get_intf_name(12, name, 8) == 5);
    CHECK(dm_hdc_init(NULL, NULL, NULL, NULL, NULL, 0) == -22);
    CHECK(dm_init(&cb) == 0);
    if (cb != NULL) {
        CHECK(dm_hdc_init(NULL, cb, NULL, (DM_ADDR_ST *)&addr, NULL, 0) == -22);
        dm_destroy(cb);
    }
}
