// A circular doubly linked list. Its links are members of the listed records. No operation allocates, locks or fails.
// The caller protects the list with a lock of its own. Only list_empty may be called without the lock; its result may
// then be out of date.
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

// Inserts `entry` as the first entry.
inline void list_add(list_head* entry, list_head* head)
{
    list_insert_between(entry, head, head->next);
}

// Inserts `entry` as the last entry.
inline void list_add_tail(list_head* entry, list_head* head)
{
    list_insert_between(entry, head->prev, head);
}

// Unlinks `entry` and makes it an empty list.
inline void list_del_init(list_head* entry)
{
    __atomic_store_n(&entry->prev->next, entry->next, __ATOMIC_RELAXED);
    entry->next->prev = entry->prev;
    list_init(entry);
}

// Returns a pointer to the record of type `type` that contains `*link` as its member `member`.
#define list_entry(link, type, member) (reinterpret_cast<type*>(reinterpret_cast<char*>(link) - offsetof(type, member)))
