/* Compiled as strict C11: proves that every exported header is valid C and that the
 * exported functions link from C. Each subsystem adds a few calls of its own API. */
#include <stdio.h>
#include <stdint.h>

#include "velmar_sastox.h"

static int failures;

#define CHECK(cond)                                                                             \
    do {                                                                                        \
        if (!(cond)) {                                                                          \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);            \
            failures++;                                                                         \
        }                                                                                       \
    } while (0)

static void check_list(void)
{
    LIST_ST *list = NULL;
    int item = 7;
    CHECK(list_create(&list, NULL, NULL) == 0);
    CHECK(list_append(list, &item) == 0);
    CHECK(list_size(list) == 1);
    CHECK(list_first_item(list) == &item);
    list_destroy(list);
    CHECK(list_create(NULL, NULL, NULL) == 22);
}

static void check_poller(void)
{
    POLLER_ST *poller = NULL;
    CHECK(poller_create(&poller) == 0);
    CHECK(poller_destory(poller) == 0);
    CHECK(poller_create(NULL) == 22);
}

int main(void)
{
    check_list();
    check_poller();
    if (failures == 0) {
        printf("c api: all checks passed\n");
    }
    return failures == 0 ? 0 : 1;
}
