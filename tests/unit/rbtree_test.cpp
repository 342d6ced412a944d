// The red-black tree against a std::map model under random inserts,
// replacements and deletes, with the structure checked as it goes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "detection.h"
#include "util/cel_rbTree.h"

namespace {

int32_t compareInts(const void *a, const void *b) {
  const int left = *static_cast<const int *>(a), right = *static_cast<const int *>(b);
  return (left > right) - (left < right);
}

// Parent links agree with child links (the property check does not look at
// them), and the height stays within 2 log2(n + 1).
int checkedHeight(const cel_rbTreeNode *node, const cel_rbTreeNode *parent) {
  if (node == nullptr) return 0;
  EXPECT_EQ(node->parent, parent);
  return 1 + std::max(checkedHeight(node->left, node), checkedHeight(node->right, node));
}

std::vector<int> inOrder(const cel_rbTree &tree) {
  std::vector<int> keys;
  cel_rbTreeForEach(
      &tree,
      [](void *item, void *context) -> int32_t {
        static_cast<std::vector<int> *>(context)->push_back(*static_cast<int *>(item));
        return 0;
      },
      &keys);
  return keys;
}

void expectMatchesModel(cel_rbTree &tree, const std::map<int, int *> &model) {
  ASSERT_EQ(cel_rbTreeVerifyProperties(&tree), CEL_RBTREE_OK);
  const int height = checkedHeight(tree.root, nullptr);
  EXPECT_LE(height, 2 * std::log2(model.size() + 1) + 1e-9);
  std::vector<int> expected;
  for (const auto &[key, item] : model) expected.push_back(key);
  EXPECT_EQ(inOrder(tree), expected);
}

struct Pattern {
  const char *name;
  int count;
  int keyRange;  // 0: ascending keys, < 0: descending, > 0: random keys in [0, range)
};

class RbTreeModel : public ::testing::TestWithParam<Pattern> {};

TEST_P(RbTreeModel, AgreesWithAMapAfterEveryChange) {
  const Pattern pattern = GetParam();
  std::mt19937 random(7);
  std::vector<int> storage(static_cast<size_t>(pattern.count) * 2);
  cel_rbTree tree{};
  ASSERT_EQ(cel_rbTreeCreate(&tree, compareInts), CEL_RBTREE_OK);
  std::map<int, int *> model;
  for (int step = 0; step < pattern.count * 2; ++step) {
    const int key = pattern.keyRange == 0   ? step % pattern.count
                    : pattern.keyRange < 0 ? pattern.count - step % pattern.count
                                           : static_cast<int>(random() % pattern.keyRange);
    int *item = &storage[static_cast<size_t>(step)];
    *item = key;
    void *out = nullptr;
    if (step < pattern.count || random() % 3 == 0) {
      ASSERT_EQ(cel_rbTreeInsert(&tree, item), CEL_RBTREE_OK);
      model[key] = item;  // an equal key replaces the stored pointer
    } else {
      ASSERT_EQ(cel_rbTreeDelete(&tree, &key, &out), CEL_RBTREE_OK);
      auto found = model.find(key);
      EXPECT_EQ(out, found == model.end() ? nullptr : found->second);
      if (found != model.end()) model.erase(found);
    }
    ASSERT_EQ(cel_rbTreeLookup(&tree, &key, &out), CEL_RBTREE_OK);
    EXPECT_EQ(out, model.count(key) != 0 ? model[key] : nullptr);
    if (step % (pattern.count / 50 + 1) == 0) expectMatchesModel(tree, model);
  }
  expectMatchesModel(tree, model);
  ASSERT_EQ(cel_rbTreeDestroy(&tree), CEL_RBTREE_OK);
  EXPECT_EQ(tree.root, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Patterns, RbTreeModel,
                         ::testing::Values(Pattern{"ascending", 3000, 0},
                                           Pattern{"descending", 3000, -1},
                                           Pattern{"random", 5000, 2000}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(RbTree, PropertyCheckFindsARedRootAndARedPair) {
  dmstest::QuietTrace quiet;  // the check reports what it found on stdout
  std::vector<int> keys{1, 2, 3, 4, 5};
  cel_rbTree tree{};
  ASSERT_EQ(cel_rbTreeCreate(&tree, compareInts), CEL_RBTREE_OK);
  for (int &key : keys) ASSERT_EQ(cel_rbTreeInsert(&tree, &key), CEL_RBTREE_OK);
  tree.root->color = CEL_RBTREE_RED;
  EXPECT_EQ(cel_rbTreeVerifyProperties(&tree), CEL_RBTREE_ERR_PROPERTY);
  tree.root->color = CEL_RBTREE_BLACK;
  tree.root->right->color = CEL_RBTREE_RED;
  tree.root->right->right->color = CEL_RBTREE_RED;
  EXPECT_EQ(cel_rbTreeVerifyProperties(&tree), CEL_RBTREE_ERR_PROPERTY);
  EXPECT_EQ(cel_rbTreeInsert(nullptr, &keys[0]), CEL_RBTREE_ERR_INVALID_ARG);
  cel_rbTreeDestroy(&tree);
}

}  // namespace
