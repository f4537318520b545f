/* The node and tree records that libubus's public structures carry. Users of libubus never call into a tree; the client
 * library keeps a context's few objects as a list, in the order of their registration. */
#ifndef LIBUBOX_AVL_H
#define LIBUBOX_AVL_H

#include <stdbool.h>

#include <libubox/list.h>

#ifndef EXPORT
#define EXPORT(sym)
#endif

struct avl_node {
    struct list_head list;
};

struct avl_tree {
    struct list_head list_head;
};

#endif
