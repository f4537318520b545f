/* Doubly linked circular lists with a head, the links embedded in the elements. */
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

#include <stdbool.h>
#include <stddef.h>

#define prefetch(x)

struct list_head {
    struct list_head* next;
    struct list_head* prev;
};

#ifndef container_of
/* The record that holds `ptr` as its `member`; a pointer of another type than the member's does not compile cleanly. */
#define container_of(ptr, type, member)                                                                                \
    ({                                                                                                                 \
        const __typeof__(((type*)NULL)->member)* container_member_ = (ptr);                                            \
        (type*)((char*)container_member_ - offsetof(type, member));                                                    \
    })
#endif

#undef LIST_HEAD
#define LIST_HEAD_INIT(name)                                                                                           \
    {                                                                                                                  \
        &(name), &(name)                                                                                               \
    }
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

static inline void INIT_LIST_HEAD(struct list_head* list)
{
    list->next = list;
    list->prev = list;
}

static inline bool list_empty(const struct list_head* list)
{
    return list->next == list;
}

/* Puts the entry in front of all others. */
static inline void list_add(struct list_head* entry, struct list_head* list)
{
    entry->prev = list;
    entry->next = list->next;
    list->next->prev = entry;
    list->next = entry;
}

/* Puts the entry behind all others. */
static inline void list_add_tail(struct list_head* entry, struct list_head* list)
{
    list_add(entry, list->prev);
}

/* Takes the entry out of its list and sets both of its links to null. */
static inline void list_del(struct list_head* entry)
{
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    entry->next = NULL;
    entry->prev = NULL;
}

/* Takes the entry out of its list and makes it an empty list of its own. */
static inline void list_del_init(struct list_head* entry)
{
    entry->prev->next = entry->next;
    entry->next->prev = entry->prev;
    INIT_LIST_HEAD(entry);
}

#define list_entry(ptr, type, member) container_of(ptr, type, member)
#define list_first_entry(list, type, member) list_entry((list)->next, type, member)

#define list_for_each_entry(pos, list, member)                                                                         \
    for (pos = list_first_entry(list, __typeof__(*pos), member); &pos->member != (list);                               \
         pos = list_entry(pos->member.next, __typeof__(*pos), member))

#endif
