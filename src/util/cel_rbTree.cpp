#include "util/cel_rbTree.h"

#include <cstdio>
#include <memory>
#include <new>
#include <vector>

#include "util/dmsGuard.h"

namespace {

constexpr char kSourceName[] = "cel_rbTree";

bool isRed(const cel_rbTreeNode *node) { return node != nullptr && node->color == CEL_RBTREE_RED; }

// The child on one side; lets every rebalancing step be written once for both
// mirror images instead of twice.
cel_rbTreeNode *&childLink(cel_rbTreeNode *node, bool left) {
  return left ? node->left : node->right;
}

void printPrefix(const char *functionName, int line) {
  std::printf("(%s, %s, %d) ", functionName, kSourceName, line);
}

// Nodes are owned by the tree's links once inserted; this pair is the only
// place where they come into and go out of existence.
std::unique_ptr<cel_rbTreeNode> allocateNode(void *item) noexcept {
  return dmsGuard("cel_rbTreeInsert", std::unique_ptr<cel_rbTreeNode>(), [&] {
    return std::make_unique<cel_rbTreeNode>(cel_rbTreeNode{CEL_RBTREE_RED, nullptr, nullptr, nullptr, item});
  });
}

void freeNode(cel_rbTreeNode *node) noexcept { std::unique_ptr<cel_rbTreeNode> owned(node); }

// Puts `replacement` (possibly null) where `node` hangs: under node's parent
// or as the root.
void replaceInParent(cel_rbTree *tree, cel_rbTreeNode *node, cel_rbTreeNode *replacement) {
  cel_rbTreeNode *parent = node->parent;
  if (parent == nullptr) {
    tree->root = replacement;
  } else if (parent->left == node) {
    parent->left = replacement;
  } else {
    parent->right = replacement;
  }
  if (replacement != nullptr) replacement->parent = parent;
}

// Left rotation (toLeft) lifts node's right child into its place and makes
// node that child's left child; the right rotation is the mirror image.
void rotate(cel_rbTree *tree, cel_rbTreeNode *node, bool toLeft) {
  cel_rbTreeNode *lifted = childLink(node, !toLeft);
  cel_rbTreeNode *inner = childLink(lifted, toLeft);
  childLink(node, !toLeft) = inner;
  if (inner != nullptr) inner->parent = node;
  replaceInParent(tree, node, lifted);
  childLink(lifted, toLeft) = node;
  node->parent = lifted;
}

cel_rbTreeNode *findNode(const cel_rbTree *tree, const void *key) {
  cel_rbTreeNode *node = tree->root;
  while (node != nullptr) {
    int32_t order = tree->compare(key, node->item);
    if (order == 0) return node;
    node = order < 0 ? node->left : node->right;
  }
  return nullptr;
}

// Restores the properties after `node` was attached red.  Each round either
// ends the loop or moves two levels up, so the cost is O(log n).
void insertFixup(cel_rbTree *tree, cel_rbTreeNode *node) {
  while (isRed(node->parent)) {
    cel_rbTreeNode *parent = node->parent;
    cel_rbTreeNode *grand = parent->parent;
    if (grand == nullptr) {  // a red root: recolouring it is all that is left
      parent->color = CEL_RBTREE_BLACK;
      break;
    }
    bool parentIsLeft = (parent == grand->left);
    cel_rbTreeNode *uncle = childLink(grand, !parentIsLeft);
    if (isRed(uncle)) {
      parent->color = CEL_RBTREE_BLACK;
      uncle->color = CEL_RBTREE_BLACK;
      grand->color = CEL_RBTREE_RED;
      node = grand;
      continue;
    }
    if (node == childLink(parent, !parentIsLeft)) {
      // Zig-zag: turn it into the straight case first, then finish below.
      rotate(tree, parent, parentIsLeft);
      node = parent;
      parent = node->parent;
    }
    parent->color = CEL_RBTREE_BLACK;
    grand->color = CEL_RBTREE_RED;
    rotate(tree, grand, !parentIsLeft);
    break;
  }
  tree->root->color = CEL_RBTREE_BLACK;
}

// Restores the black height after a black node was unlinked.  `node` (which
// may be null) took its place under `parent`, on the side `nodeIsLeft`.
void deleteFixup(cel_rbTree *tree, cel_rbTreeNode *node, cel_rbTreeNode *parent, bool nodeIsLeft) {
  while (parent != nullptr && !isRed(node)) {
    cel_rbTreeNode *sibling = childLink(parent, !nodeIsLeft);
    if (sibling == nullptr) break;  // cannot happen in a valid tree
    if (isRed(sibling)) {
      sibling->color = CEL_RBTREE_BLACK;
      parent->color = CEL_RBTREE_RED;
      rotate(tree, parent, nodeIsLeft);
      sibling = childLink(parent, !nodeIsLeft);
      if (sibling == nullptr) break;
    }
    cel_rbTreeNode *nearChild = childLink(sibling, nodeIsLeft);
    cel_rbTreeNode *farChild = childLink(sibling, !nodeIsLeft);
    if (!isRed(nearChild) && !isRed(farChild)) {
      sibling->color = CEL_RBTREE_RED;
      node = parent;
      parent = node->parent;
      if (parent != nullptr) nodeIsLeft = (node == parent->left);
      continue;
    }
    if (!isRed(farChild)) {
      nearChild->color = CEL_RBTREE_BLACK;
      sibling->color = CEL_RBTREE_RED;
      rotate(tree, sibling, !nodeIsLeft);
      sibling = childLink(parent, !nodeIsLeft);
      farChild = childLink(sibling, !nodeIsLeft);
    }
    sibling->color = parent->color;
    parent->color = CEL_RBTREE_BLACK;
    farChild->color = CEL_RBTREE_BLACK;
    rotate(tree, parent, nodeIsLeft);
    node = tree->root;
    break;
  }
  if (node != nullptr) node->color = CEL_RBTREE_BLACK;
}

// Unlinks `node`, which has at most one child, and frees it.
void removeNode(cel_rbTree *tree, cel_rbTreeNode *node) {
  cel_rbTreeNode *child = node->left != nullptr ? node->left : node->right;
  cel_rbTreeNode *parent = node->parent;
  bool wasLeft = parent != nullptr && parent->left == node;
  replaceInParent(tree, node, child);
  if (node->color != CEL_RBTREE_RED) deleteFixup(tree, child, parent, wasLeft);
  freeNode(node);
}

// The full check after a mutation turns every O(log n) operation into an
// O(n) one, so only debug builds pay for it.
int32_t checkAfterMutation(cel_rbTree *tree, const char *functionName, int line) {
#ifdef NDEBUG
  (void)tree;
  (void)functionName;
  (void)line;
  return CEL_RBTREE_OK;
#else
  int32_t result = cel_rbTreeVerifyProperties(tree);
  if (result != CEL_RBTREE_OK) {
    printPrefix(functionName, line);
    std::printf("Error in tree properties, error code %d\n", result);
  }
  return result;
#endif
}

// Result of one walk over the tree; each flag says whether a property was
// broken anywhere, so the violations can be reported in the fixed order.
struct PropertyScan {
  bool badColor = false;
  bool redRedPair = false;
  bool unequalBlackHeight = false;
};

// Depth-first walk with an explicit stack: a damaged tree may be a long
// chain, and recursion over it could overflow the call stack.
PropertyScan scanProperties(const cel_rbTreeNode *root) {
  struct Pending {
    const cel_rbTreeNode *node;
    uint32_t blacksAbove;
  };
  PropertyScan scan;
  std::vector<Pending> stack;
  stack.reserve(64);
  stack.push_back({root, 0});
  bool heightKnown = false;
  uint32_t expectedHeight = 0;
  while (!stack.empty()) {
    Pending pending = stack.back();
    stack.pop_back();
    const cel_rbTreeNode *node = pending.node;
    if (node == nullptr) {
      uint32_t height = pending.blacksAbove + 1;  // the null child counts as black
      if (!heightKnown) {
        heightKnown = true;
        expectedHeight = height;
      } else if (height != expectedHeight) {
        scan.unequalBlackHeight = true;
      }
      continue;
    }
    if (node->color != CEL_RBTREE_RED && node->color != CEL_RBTREE_BLACK) scan.badColor = true;
    if (isRed(node) && (isRed(node->left) || isRed(node->right) || isRed(node->parent))) {
      scan.redRedPair = true;
    }
    uint32_t blacks = pending.blacksAbove + (node->color == CEL_RBTREE_BLACK ? 1 : 0);
    stack.push_back({node->right, blacks});
    stack.push_back({node->left, blacks});
  }
  return scan;
}

}  // namespace

int32_t cel_rbTreeCreate(cel_rbTree *tree, cel_rbTreeCompareFunc compare) {
  if (tree == nullptr || compare == nullptr) return CEL_RBTREE_ERR_INVALID_ARG;
  tree->root = nullptr;
  tree->compare = compare;
  // Cheap on an empty tree, so it runs in every build.
  int32_t result = cel_rbTreeVerifyProperties(tree);
  if (result != CEL_RBTREE_OK) {
    printPrefix(__func__, __LINE__);
    std::printf("Error in tree properties, error code %d\n", result);
  }
  return result;
}

int32_t cel_rbTreeLookup(cel_rbTree *tree, const void *key, void **out) {
  if (tree == nullptr || key == nullptr || out == nullptr || tree->compare == nullptr) {
    return CEL_RBTREE_ERR_INVALID_ARG;
  }
  cel_rbTreeNode *node = findNode(tree, key);
  *out = node != nullptr ? node->item : nullptr;
  return CEL_RBTREE_OK;
}

int32_t cel_rbTreeInsert(cel_rbTree *tree, void *item) {
  if (tree == nullptr || item == nullptr || tree->compare == nullptr) {
    return CEL_RBTREE_ERR_INVALID_ARG;
  }
  // Find the attachment point first: an equal item only swaps the pointer,
  // and then no node needs to be allocated at all.
  cel_rbTreeNode *parent = nullptr;
  bool attachLeft = false;
  for (cel_rbTreeNode *node = tree->root; node != nullptr;) {
    int32_t order = tree->compare(item, node->item);
    if (order == 0) {
      node->item = item;
      return CEL_RBTREE_OK;
    }
    parent = node;
    attachLeft = order < 0;
    node = attachLeft ? node->left : node->right;
  }
  std::unique_ptr<cel_rbTreeNode> owned = allocateNode(item);
  if (!owned) return CEL_RBTREE_ERR_NO_MEMORY;
  cel_rbTreeNode *node = owned.release();
  node->parent = parent;
  if (parent == nullptr) {
    tree->root = node;
  } else {
    childLink(parent, attachLeft) = node;
  }
  insertFixup(tree, node);
  return checkAfterMutation(tree, __func__, __LINE__);
}

int32_t cel_rbTreeDelete(cel_rbTree *tree, const void *key, void **out) {
  if (tree == nullptr || key == nullptr || out == nullptr || tree->compare == nullptr) {
    return CEL_RBTREE_ERR_INVALID_ARG;
  }
  *out = nullptr;
  cel_rbTreeNode *node = findNode(tree, key);
  if (node == nullptr) return checkAfterMutation(tree, __func__, __LINE__);
  *out = node->item;
  if (node->left != nullptr && node->right != nullptr) {
    // Two children: the in-order predecessor's item moves into this node and
    // the predecessor, which has no right child, is removed instead.
    cel_rbTreeNode *predecessor = node->left;
    while (predecessor->right != nullptr) predecessor = predecessor->right;
    node->item = predecessor->item;
    node = predecessor;
  }
  removeNode(tree, node);
  return checkAfterMutation(tree, __func__, __LINE__);
}

int32_t cel_rbTreeDestroy(cel_rbTree *tree) {
  if (tree == nullptr) return CEL_RBTREE_ERR_INVALID_ARG;
  // Post-order through the parent links: each node is freed once its
  // subtrees are gone, with no rebalancing and no extra memory.
  cel_rbTreeNode *node = tree->root;
  while (node != nullptr) {
    if (node->left != nullptr) {
      node = node->left;
    } else if (node->right != nullptr) {
      node = node->right;
    } else {
      cel_rbTreeNode *parent = node->parent;
      if (parent != nullptr) childLink(parent, parent->left == node) = nullptr;
      freeNode(node);
      node = parent;
    }
  }
  tree->root = nullptr;
  tree->compare = nullptr;
  return CEL_RBTREE_OK;
}

int32_t cel_rbTreeVerifyProperties(cel_rbTree *tree) {
  if (tree == nullptr) return CEL_RBTREE_ERR_INVALID_ARG;
  if (tree->root == nullptr) return CEL_RBTREE_OK;
  PropertyScan scan;
  const int32_t scanned = dmsGuard("cel_rbTreeVerifyProperties", CEL_RBTREE_ERR_NO_MEMORY, [&] {
    scan = scanProperties(tree->root);
    return CEL_RBTREE_OK;
  });
  if (scanned != CEL_RBTREE_OK) return scanned;
  if (scan.badColor) {
    printPrefix(__func__, __LINE__);
    std::printf("Error in tree property 1\n");
    return CEL_RBTREE_ERR_PROPERTY;
  }
  if (tree->root->color != CEL_RBTREE_BLACK) {
    printPrefix(__func__, __LINE__);
    std::printf("Error in tree property 2\n");
    return CEL_RBTREE_ERR_PROPERTY;
  }
  if (scan.redRedPair) {
    printPrefix(__func__, __LINE__);
    std::printf("Error in tree property 4\n");
    return CEL_RBTREE_ERR_PROPERTY;
  }
  if (scan.unequalBlackHeight) {
    printPrefix(__func__, __LINE__);
    std::printf("Error in tree property 5\n");
    return CEL_RBTREE_ERR_PROPERTY;
  }
  return CEL_RBTREE_OK;
}

int32_t cel_rbTreeForEach(const cel_rbTree *tree, cel_rbTreeVisitFunc visit, void *context) {
  if (tree == nullptr || visit == nullptr) return CEL_RBTREE_ERR_INVALID_ARG;
  cel_rbTreeNode *node = tree->root;
  if (node == nullptr) return CEL_RBTREE_OK;
  while (node->left != nullptr) node = node->left;
  while (node != nullptr) {
    if (visit(node->item, context) != 0) break;
    // In-order successor: leftmost of the right subtree, or else the first
    // ancestor reached from its left side.
    if (node->right != nullptr) {
      node = node->right;
      while (node->left != nullptr) node = node->left;
    } else {
      cel_rbTreeNode *child = node;
      node = node->parent;
      while (node != nullptr && child == node->right) {
        child = node;
        node = node->parent;
      }
    }
  }
  return CEL_RBTREE_OK;
}
