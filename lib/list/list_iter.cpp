// SPDX-License-Identifier: Apache-2.0
// Removal, search and iteration: the operations that rely on node reference counts so
// that an iterator may stand on a node while another caller removes it.
#include "list/list_records.h"

using namespace velmar::list;

namespace {

constexpr int kInvalid = 22;

// First node from the head that is not marked removed and whose item matches `key`.
LIST_NODE_ST *find_live(LIST_ST *list, void *key, LIST_COMPARE_FN compare)
{
    LIST_COMPARE_FN cmp = compare != nullptr ? compare : list->compare;
    for (LIST_NODE_ST *node = load_next(&list->head); node != &list->head; node = load_next(node)) {
        if (!is_removed(node) && cmp(node->item, key) == 0) {
            return node;
        }
    }
    return nullptr;
}

} // namespace

int list_remove(LIST_ST *list, LIST_NODE_ST *node)
{
    if (list == nullptr) {
        return kInvalid;
    }
    if (node == nullptr) {
        return 0;
    }
    ListLock guard(list);
    release_node(node, true);
    return 0;
}

int list_remove_by_tag(LIST_ST *list, void *key, LIST_COMPARE_FN compare)
{
    if (list == nullptr) {
        return kInvalid;
    }
    ListLock guard(list);
    LIST_NODE_ST *node = find_live(list, key, compare);
    if (node != nullptr) {
        release_node(node, true);
    }
    return 0;
}

LIST_NODE_ST *list_search(LIST_ST *list, void *key, LIST_COMPARE_FN compare)
{
    return find_live(list, key, compare);
}

void list_iter_init(LIST_ST *list, LIST_ITER_ST *iter)
{
    if (list != nullptr && iter != nullptr) {
        list_iter_init_node(list, iter, nullptr);
    }
}

void list_iter_init_node(LIST_ST *list, LIST_ITER_ST *iter, LIST_NODE_ST *node)
{
    iter->list = list;
    iter->node = node;
    if (node != nullptr) {
        take_ref(node);
    }
}

LIST_NODE_ST *list_iter_next(LIST_ITER_ST *iter)
{
    if (iter == nullptr || iter->list == nullptr) {
        return nullptr;
    }
    LIST_ST *list = iter->list;
    ListLock guard(list);
    LIST_NODE_ST *candidate;
    if (iter->node != nullptr) {
        // Read the successor before letting go: the release may unlink and free the node.
        candidate = load_next(iter->node);
        release_node(iter->node, false);
    } else {
        candidate = load_next(&list->head);
    }
    iter->node = nullptr;
    while (candidate != &list->head && is_removed(candidate)) {
        candidate = load_next(candidate);
    }
    if (candidate == &list->head) {
        return nullptr;
    }
    take_ref(candidate);
    iter->node = candidate;
    return candidate;
}

void list_iter_destroy(LIST_ITER_ST *iter)
{
    if (iter == nullptr || iter->list == nullptr) {
        return;
    }
    ListLock guard(iter->list);
    if (iter->node != nullptr) {
        release_node(iter->node, false);
    }
}

void list_iterate(LIST_ST *list, LIST_VISIT_FN visit, void *arg, uint32_t value)
{
    // A null visitor has nothing to be called for; walking the list would only take and
    // drop references.
    if (visit == nullptr) {
        return;
    }
    LIST_ITER_ST iter = {nullptr, nullptr};
    list_iter_init(list, &iter);
    for (LIST_NODE_ST *node = list_iter_next(&iter); node != nullptr;
         node = list_iter_next(&iter)) {
        visit(list_to_item(node), arg, value);
    }
    list_iter_destroy(&iter);
}
