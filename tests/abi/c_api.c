/* Compiled as strict C11: proves that every exported header is valid C and that the
 * exported functions link from C. Each subsystem's calls live in c_api_<subsystem>.c. */
#include "c_api.h"

#include "velmar_sastox.h"

int c_api_failures;

int main(void)
{
    check_list();
    check_poller();
    check_msg();
    check_hash();
    check_queue();
    check_vos();
    check_ipc();
    check_udp();
    check_hdc();
    if (c_api_failures == 0) {
        printf("c api: all checks passed\n");
    }
    return c_api_failures == 0 ? 0 : 1;
}
