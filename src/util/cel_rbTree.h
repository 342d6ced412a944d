// Red-black tree of opaque item pointers ordered by a caller's compare
// function.  The tree stores pointers only: it never owns, copies or frees
// the items.  The owner keeps the cel_rbTree handle by value in its own record
// and serialises every call (there is no locking inside).
//
// Result codes of every function (plain integers, not the server's codes):
//   0 success, 1 invalid argument (a null pointer), 2 a red-black property is
//   violated, 3 no memory for a node.
//
// Cost: lookup, insert and delete are O(log n); destroy and the property
// check are O(n).  Debug builds (NDEBUG not defined) also run the full
// property check after every create, insert and delete and report a failure
// through that operation's result; release builds run it on create only.
#ifndef DMS_UTIL_CEL_RBTREE_H
#define DMS_UTIL_CEL_RBTREE_H

#include <cstdint>

inline constexpr int32_t CEL_RBTREE_OK = 0;
inline constexpr int32_t CEL_RBTREE_ERR_INVALID_ARG = 1;
inline constexpr int32_t CEL_RBTREE_ERR_PROPERTY = 2;
inline constexpr int32_t CEL_RBTREE_ERR_NO_MEMORY = 3;

inline constexpr uint32_t CEL_RBTREE_RED = 0;
inline constexpr uint32_t CEL_RBTREE_BLACK = 1;

// Negative when a orders before b, zero when equal, positive after.  The tree
// always passes the key (lookup, delete) or the new item (insert) as a and
// the stored item as b, so a key may be a different type from the items as
// long as the compare function knows it.
typedef int32_t (*cel_rbTreeCompareFunc)(const void *a, const void *b);

// One node per stored item.  Nodes are allocated, linked and freed by the
// tree alone; the layout is visible so that tests can inspect the structure
// (and damage it on purpose to exercise the property check).
struct cel_rbTreeNode {
  uint32_t color;            // CEL_RBTREE_RED or CEL_RBTREE_BLACK
  cel_rbTreeNode *parent;    // null at the root
  cel_rbTreeNode *left;
  cel_rbTreeNode *right;
  void *item;                // the caller's record, never dereferenced
};

struct cel_rbTree {
  cel_rbTreeNode *root;            // null for an empty tree
  cel_rbTreeCompareFunc compare;   // null before create and after destroy
};

// Makes `tree` an empty tree ordered by `compare`.  1 if either is null;
// otherwise the result of the property check (0 for the empty tree).
int32_t cel_rbTreeCreate(cel_rbTree *tree, cel_rbTreeCompareFunc compare);

// Sets *out to the stored item comparing equal to `key`, or to null.  Returns
// 0 whether or not an item was found (the caller tests *out); 1 if an
// argument is null or the tree has no compare function.
int32_t cel_rbTreeLookup(cel_rbTree *tree, const void *key, void **out);

// Stores `item`.  If an item comparing equal is already stored, its pointer
// is replaced by `item` (the old pointer is not handed back) and the node
// count stays the same.  1 for a null argument or a tree without compare
// function, 3 when no node can be allocated, else 0 (or, in debug builds,
// the failing code of the property check).
int32_t cel_rbTreeInsert(cel_rbTree *tree, void *item);

// Removes the item comparing equal to `key` and sets *out to it, or sets
// *out to null when there is none (still 0).  1 for a null argument or a
// tree without compare function, else 0 (or, in debug builds, the failing
// code of the property check).
int32_t cel_rbTreeDelete(cel_rbTree *tree, const void *key, void **out);

// Frees every node in O(n) and leaves root and compare null.  The items are
// not touched: the owner releases them through its own bookkeeping.  1 for
// null, else 0.
int32_t cel_rbTreeDestroy(cel_rbTree *tree);

// Checks the red-black properties in this order and stops at the first
// violation: 1 every colour is red or black, 2 a non-empty tree has a black
// root, 4 no red node has a red child or a red parent, 5 every path from the
// root to a null child passes the same number of black nodes.  A violation
// prints "(cel_rbTreeVerifyProperties, cel_rbTree, <line>) Error in tree
// property <n>" on standard output and returns 2.  1 for null, 3 if the
// walk's own stack cannot be allocated, else 0.  The walk uses a heap stack,
// so even a damaged, degenerate tree cannot overflow the call stack.
int32_t cel_rbTreeVerifyProperties(cel_rbTree *tree);

// Called with each item in order; a non-zero result stops the walk.
typedef int32_t (*cel_rbTreeVisitFunc)(void *item, void *context);

// Walks the items in ascending order, passing `context` through, without
// recursion or allocation (it follows the parent links).  The tree must not
// be changed from inside `visit`.  1 if tree or visit is null, else 0 (also
// when the visitor stopped the walk early).
int32_t cel_rbTreeForEach(const cel_rbTree *tree, cel_rbTreeVisitFunc visit, void *context);

#endif  // DMS_UTIL_CEL_RBTREE_H
