#ifndef LINUX_LIST_H
#define LINUX_LIST_H

/*
 * Intrusive circular doubly linked lists: a list_head is embedded in every
 * entry and in the owner. An empty list's head points to itself, and so does
 * an entry that is on no list.
 */

#include <cstddef>

struct list_head {
    list_head* next;
    list_head* prev;
};

/* Makes head an empty list (or an entry that is on no list). */
inline void list_init(list_head* head)
{
    head->next = head;
    head->prev = head;
}

/* True when the list has no entry. */
inline bool list_empty(const list_head* head)
{
    return head->next == head;
}

/* Appends entry, which is on no list, at the tail of the list. */
inline void list_add_tail(list_head* entry, list_head* head)
{
    entry->prev = head->prev;
    entry->next = head;
    head->prev->next = entry;
    head->prev = entry;
}

/* Takes entry out of its list and re-points it to itself; the caller still owns it. */
inline void list_del_init(list_head* entry)
{
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    list_init(entry);
}

/* The record of the given type whose list_head `member` is *node. */
#define list_entry(node, type, member)                                                             \
    (reinterpret_cast<type*>(reinterpret_cast<char*>(node) - offsetof(type, member))) // NOLINT

#endif
