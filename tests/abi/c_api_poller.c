#include "c_api.h"
#include "velmar_sastox.h"

void check_poller(void)
{
    POLLER_ST *poller = NULL;
    CHECK(poller_create(&poller) == 0);
    CHECK(poller_destory(poller) == 0);
    CHECK(poller_create(NULL) == 22);
}
