// SPDX-License-Identifier: Apache-2.0
// The list handle: creation, destruction and the lock-free accessors.
#include <cstdlib>

#include "list/list_records.h"

using namespace velmar::list;

namespace {

constexpr int kInvalid = 22;
constexpr int kNoMemory = 12;

// Runs the attribute chain; the first failing call ends it and its result is returned.
int init_recursive_mutex(pthread_mutex_t *mutex)
{
    pthread_mutexattr_t attr;
    int ret = pthread_mutexattr_init(&attr);
    if (ret != 0) {
        return ret;
    }
    ret = pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    if (ret == 0) {
        ret = pthread_mutex_init(mutex, &attr);
    }
    pthread_mutexattr_destroy(&attr);
    return ret;
}

} // namespace

int32_t list_default_compare(void *item, void *key)
{
    auto a = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(item));
    auto b = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(key));
    if (a == b) {
        return 0;
    }
    return a > b ? 1 : -1;
}

int list_create(LIST_ST **out, LIST_COMPARE_FN compare, LIST_FREE_FN free_item)
{
    if (out == nullptr) {
        return kInvalid;
    }
    auto *list = static_cast<LIST_ST *>(std::malloc(sizeof(LIST_ST)));
    if (list == nullptr) {
        return kNoMemory;
    }
    int ret = memset_s(list, sizeof(*list), 0, sizeof(*list));
    if (ret != 0) {
        std::free(list);
        return ret;
    }
    *out = list;
    ret = init_recursive_mutex(&list->mutex);
    if (ret != 0) {
        std::free(list);
        *out = nullptr;
        return ret;
    }
    list->lock = mmMutexLock;
    list->unlock = mmMutexUnLock;
    list->count = 0;
    list->head.next = &list->head;
    list->head.prev = &list->head;
    list->head.owner = list;
    list->compare = compare != nullptr ? compare : list_default_compare;
    list->free_item = free_item;
    return 0;
}

void list_destroy(LIST_ST *list)
{
    if (list == nullptr) {
        return;
    }
    list->lock(&list->mutex);
    LIST_NODE_ST *node = load_next(&list->head);
    while (node != &list->head) {
        LIST_NODE_ST *next = load_next(node);
        if (list->free_item != nullptr) {
            list->free_item(node->item);
        }
        std::free(node);
        node = next;
    }
    list->unlock(&list->mutex);
    mmMutexDestroy(&list->mutex);
    std::free(list);
}

uint32_t list_size(LIST_ST *list)
{
    return list == nullptr ? 0 : load_count(list);
}

int list_is_empty(LIST_ST *list)
{
    if (list == nullptr) {
        return 1;
    }
    return load_next(&list->head) == &list->head ? 1 : 0;
}

void *list_to_item(LIST_NODE_ST *node)
{
    return node == nullptr ? nullptr : node->item;
}

void *list_first_item(LIST_ST *list)
{
    if (list == nullptr) {
        return nullptr;
    }
    LIST_NODE_ST *first = load_next(&list->head);
    return first == &list->head ? nullptr : first->item;
}

void *list_last_item(LIST_ST *list)
{
    if (list == nullptr) {
        return nullptr;
    }
    LIST_NODE_ST *last = load_prev(&list->head);
    return last == &list->head ? nullptr : last->item;
}
