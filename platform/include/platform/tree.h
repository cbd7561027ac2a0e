/*
 * tree.h - the platform's ordered trees: a container that keeps caller-owned elements in the
 * order of a comparison function, counts them, and hands them out in that order through a
 * walker. The feature's service keeps its zonesets, zones and zone members in them; the zone
 * encoders walk them.
 *
 * Elements are pointers that the tree neither copies nor frees; each must stay valid while it
 * is in the tree. No two elements of a tree compare equal: inserting an element equal to one
 * present is refused.
 *
 * Walking. A tree_walker is caller-owned state (on the stack, usually) whose first word the
 * caller sets to 0 before the first call; each tree_walk call then returns the next element in
 * order, and NULL after the last one (and on every later call). A walker holds no resource and is
 * simply dropped. A tree that changes while it is walked never makes the walk read outside the
 * tree, but which elements the walk then returns is unspecified.
 *
 * Costs: an insert finds its place by binary search and moves the elements after it by one
 * position (an element that sorts after every other is appended in constant amortised time); a
 * walk step and the count are constant time. Memory: one pointer per element.
 *
 * Threads: a tree belongs to one thread at a time; nothing here takes a lock.
 */
#ifndef PLAT_TREE_H
#define PLAT_TREE_H

#include "platform/plat_common.h"

PLAT_EXTERN_C_BEGIN

#define TREE_ERR_INVALID ((int32_t)0x404C0001)   /* NULL tree or element */
#define TREE_ERR_NO_MEMORY ((int32_t)0x404C0002) /* the tree could not grow */
#define TREE_ERR_EXISTS ((int32_t)0x404C0003)    /* an equal element is in the tree already */

typedef struct plat_tree plat_tree; /* opaque */

/* Orders two elements: negative when a comes first, 0 when equal, positive when b comes first. */
typedef int32_t (*tree_compare)(const void *a, const void *b);

typedef struct tree_walker {
    uint32_t next; /* 0 before the first call; the walk's own afterwards */
} tree_walker;

PLAT_STATIC_ASSERT(sizeof(tree_walker) == 4, "a walker is one word");

/* A new empty tree ordered by compare; NULL when compare is NULL or memory is short. */
PLAT_API plat_tree *tree_create(tree_compare compare);
/* Releases the tree (not its elements). NULL is ignored. */
PLAT_API void tree_destroy(plat_tree *tree);

/* Inserts element at its place in the order. Returns 0, TREE_ERR_EXISTS (an equal element is
 * present; the tree is unchanged), TREE_ERR_NO_MEMORY or TREE_ERR_INVALID. */
PLAT_API int32_t tree_insert(plat_tree *tree, void *element);

/* The number of elements; 0 for NULL. */
PLAT_API uint32_t tree_count(const plat_tree *tree);

/* The next element of the walk, or NULL after the last (or for a NULL tree or walker). */
PLAT_API void *tree_walk(const plat_tree *tree, tree_walker *walker);

PLAT_EXTERN_C_END

#endif /* PLAT_TREE_H */
