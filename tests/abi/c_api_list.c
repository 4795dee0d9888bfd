/* SPDX-License-Identifier: Apache-2.0 */
#include "c_api.h"
#include "velmar_sastox.h"

static int g_list_frees;

static int32_t compare_ints(void *item, void *key)
{
    return (int32_t)(*(int *)item - *(int *)key);
}

static void count_free(void *item)
{
    (void)item;
    g_list_frees++;
}

static void sum_items(void *item, void *arg, uint32_t value)
{
    *(int *)arg += *(int *)item * (int)value;
}

void check_list(void)
{
    LIST_ST *list = NULL;
    LIST_ST *tail = NULL;
    LIST_ITER_ST iter = {NULL, NULL};
    int items[4] = {7, 3, 5, 9};
    int key = 5;
    int sum = 0;
    LIST_NODE_ST *node;

    CHECK(list_create(NULL, NULL, NULL) == 22);
    CHECK(list_create(&list, compare_ints, count_free) == 0);
    CHECK(list_insert_ascend(list, &items[0], NULL) == 0);
    CHECK(list_insert_ascend(list, &items[1], NULL) == 0);
    CHECK(list_insert_pos(list, &items[2], 1) == 0);
    CHECK(list_size(list) == 3);
    CHECK(list_first_item(list) == &items[1] && list_last_item(list) == &items[0]);

    list_iter_init(list, &iter);
    node = list_iter_next(&iter);
    CHECK(list_to_item(node) == &items[1]);
    CHECK(list_remove(list, node) == 0);
    CHECK(g_list_frees == 0);
    CHECK(list_to_item(list_iter_next(&iter)) == &items[2]);
    CHECK(g_list_frees == 1);
    list_iter_destroy(&iter);

    CHECK(list_to_item(list_search(list, &key, NULL)) == &items[2]);
    CHECK(list_remove_by_tag(list, &key, NULL) == 0);
    CHECK(list_create(&tail, NULL, NULL) == 0);
    CHECK(list_append(tail, &items[3]) == 0);
    CHECK(list_concat_after(list, tail) == 0);
    list_iterate(list, sum_items, &sum, 2);
    CHECK(sum == 2 * (7 + 9));
    list_destroy(list);
    CHECK(g_list_frees == 4);
}
