/* SPDX-License-Identifier: Apache-2.0 */
#include "c_api.h"
#include "velmar_sastox.h"

static int c_api_hash_releases;

static void c_api_hash_release(void *value)
{
    (void)value;
    c_api_hash_releases++;
}

void check_hash(void)
{
    HASH_TABLE_ST *table = hash_table_new();
    int first = 1;
    int second = 2;
    void *values[2] = {NULL, NULL};
    CHECK(table != NULL);
    if (table == NULL) {
        return;
    }
    CHECK(hash_33("ab") == 3299U);
    CHECK(hash_table_put2(table, "tag", &first, c_api_hash_release) == 0);
    CHECK(hash_table_put2(table, "tag", &second, c_api_hash_release) == 0);
    CHECK(c_api_hash_releases == 1);
    CHECK(hash_table_get(table, "tag") == &second);
    CHECK(count_hash_table(table) == 1);
    CHECK(get_hash_table_value(table, values, 2) == 1 && values[0] == &second);
    display_hash_table(table);
    hash_table_rm(table, "tag");
    CHECK(c_api_hash_releases == 2);
    CHECK(hash_table_get(table, "tag") == NULL);
    /* The store step alone, linked into the empty chain of "solo"; the table releases it. */
    CHECK(hash_table_put2_tag_not_stored(&table->buckets[hash_33("solo") & 1023U], "solo",
                                         &first, NULL) == 0);
    CHECK(hash_table_get(table, "solo") == &first && count_hash_table(table) == 1);
    hash_table_delete(table);
    hash_table_delete(NULL);
}
