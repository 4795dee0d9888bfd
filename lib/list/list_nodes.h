/* SPDX-License-Identifier: Apache-2.0 */
// Insertion that tells the caller which node now holds the item. Hidden from the C ABI:
// the library's own O(1) removals (a pending request, a poller timer) keep the node and
// later hand it to list_remove instead of searching the list for their item.
#pragma once

#include "dm_list.h"

namespace velmar::list {

// As list_append / list_insert_ascend, with the new node in *node on success. The node
// stays valid while the list holds it: until list_remove(list, node) (which the caller
// must call at most once) or list_destroy.
int append_node(LIST_ST *list, void *item, LIST_NODE_ST **node);
int insert_ascend_node(LIST_ST *list, void *item, LIST_COMPARE_FN compare, LIST_NODE_ST **node);

} // namespace velmar::list
