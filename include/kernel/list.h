// A circular doubly linked list whose links live inside the listed records. No operation allocates, locks or
// fails; the caller guards the list. Only list_empty may be asked without the guard, for a hint.
#pragma once

#include <cstddef>

struct list_head {
    list_head* next;
    list_head* prev;
};

inline void list_init(list_head* head)
{
    head->next = head;
    head->prev = head;
}

inline bool list_empty(const list_head* head)
{
    return __atomic_load_n(&head->next, __ATOMIC_RELAXED) == head;
}

inline void list_insert_between(list_head* entry, list_head* prev, list_head* next)
{
    entry->next = next;
    entry->prev = prev;
    next->prev = entry;
    __atomic_store_n(&prev->next, entry, __ATOMIC_RELAXED);
}

// Inserts `entry` right after `head`: first in walking order.
inline void list_add(list_head* entry, list_head* head)
{
    list_insert_between(entry, head, head->next);
}

// Inserts `entry` right before `head`: last in walking order.
inline void list_add_tail(list_head* entry, list_head* head)
{
    list_insert_between(entry, head->prev, head);
}

// Unlinks `entry` and leaves it as an empty list of its own.
inline void list_del_init(list_head* entry)
{
    __atomic_store_n(&entry->prev->next, entry->next, __ATOMIC_RELAXED);
    entry->next->prev = entry->prev;
    list_init(entry);
}

// The record of type `type` whose member `member` is the link `link`.
#define list_entry(link, type, member) (reinterpret_cast<type*>(reinterpret_cast<char*>(link) - offsetof(type, member)))
