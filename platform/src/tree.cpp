// Ordered trees: a sorted array of element pointers (see platform/tree.h). The walker's word is
// the index of the next element, so 0 is the start and a walk can never step outside the array.
#include "platform/tree.h"

#include <cstdlib>
#include <cstring>

struct plat_tree {
    tree_compare compare;
    void **elements;
    uint32_t count;
    uint32_t capacity;
};

extern "C" {

plat_tree *tree_create(tree_compare compare) {
    if (compare == nullptr) return nullptr;
    auto *t = static_cast<plat_tree *>(std::calloc(1, sizeof(plat_tree)));
    if (t != nullptr) t->compare = compare;
    return t;
}

void tree_destroy(plat_tree *tree) {
    if (tree == nullptr) return;
    std::free(tree->elements);
    std::free(tree);
}

int32_t tree_insert(plat_tree *tree, void *element) {
    if (tree == nullptr || element == nullptr) return TREE_ERR_INVALID;
    // The first position whose element does not come before the new one.
    uint32_t lo = 0, hi = tree->count;
    if (hi != 0 && tree->compare(tree->elements[hi - 1], element) < 0) {
        lo = hi;  // the usual case: ids handed out in ascending order
    } else {
        while (lo < hi) {
            const uint32_t mid = lo + (hi - lo) / 2;
            if (tree->compare(tree->elements[mid], element) < 0) lo = mid + 1;
            else hi = mid;
        }
        if (lo < tree->count && tree->compare(tree->elements[lo], element) == 0) return TREE_ERR_EXISTS;
    }
    if (tree->count == tree->capacity) {
        if (tree->capacity > UINT32_MAX / 2 - 8) return TREE_ERR_NO_MEMORY;
        const uint32_t grown = tree->capacity != 0 ? 2 * tree->capacity : 8;
        if (size_t(grown) > SIZE_MAX / sizeof(void *)) return TREE_ERR_NO_MEMORY;
        void *p = std::realloc(tree->elements, grown * sizeof(void *));
        if (p == nullptr) return TREE_ERR_NO_MEMORY;
        tree->elements = static_cast<void **>(p);
        tree->capacity = grown;
    }
    std::memmove(tree->elements + lo + 1, tree->elements + lo, (tree->count - lo) * sizeof(void *));
    tree->elements[lo] = element;
    ++tree->count;
    return 0;
}

uint32_t tree_count(const plat_tree *tree) { return tree != nullptr ? tree->count : 0; }

void *tree_walk(const plat_tree *tree, tree_walker *walker) {
    if (tree == nullptr || walker == nullptr || walker->next >= tree->count) return nullptr;
    return tree->elements[walker->next++];
}

}  // extern "C"
