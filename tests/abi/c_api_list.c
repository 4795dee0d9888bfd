#include "c_api.h"
#include "velmar_sastox.h"

void check_list(void)
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
