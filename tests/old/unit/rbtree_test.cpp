#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include "util/cel_rbTree.h"
#include "capture_stdout.h"

namespace {

struct Record {
  int32_t key;
  int32_t payload;
};

int32_t compareRecords(const void *a, const void *b) {
  int32_t left = static_cast<const Record *>(a)->key;
  int32_t right = static_cast<const Record *>(b)->key;
  return (left > right) - (left < right);
}

std::vector<Record *> inOrder(const cel_rbTree &tree) {
  std::vector<Record *> items;
  cel_rbTreeForEach(
      &tree,
      [](void *item, void *context) -> int32_t {
        static_cast<std::vector<Record *> *>(context)->push_back(static_cast<Record *>(item));
        return 0;
      },
      &items);
  return items;
}

std::vector<int32_t> keysOf(const std::vector<Record *> &items) {
  std::vector<int32_t> keys;
  for (const Record *record : items) keys.push_back(record->key);
  return keys;
}

// The property check does not look at parent links; rotations that forget
// one would still pass it, so the structure is checked here as well.
bool linksConsistent(const cel_rbTreeNode *node) {
  if (node == nullptr) return true;
  if (node->left != nullptr && node->left->parent != node) return false;
  if (node->right != nullptr && node->right->parent != node) return false;
  return linksConsistent(node->left) && linksConsistent(node->right);
}

int depthOf(const cel_rbTreeNode *node) {
  return node == nullptr ? 0 : 1 + std::max(depthOf(node->left), depthOf(node->right));
}

void expectSound(cel_rbTree &tree) {
  ASSERT_EQ(cel_rbTreeVerifyProperties(&tree), 0);
  ASSERT_TRUE(tree.root == nullptr || tree.root->parent == nullptr);
  ASSERT_TRUE(linksConsistent(tree.root));
}

class RbTreeTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(cel_rbTreeCreate(&tree, compareRecords), 0); }
  void TearDown() override { EXPECT_EQ(cel_rbTreeDestroy(&tree), 0); }

  // Records with keys 0..count-1 (key i at index i).
  void makeRecords(int32_t count) {
    records.clear();
    for (int32_t key = 0; key < count; ++key) records.push_back({key, key * 7});
  }
  void insertKeys(std::initializer_list<int32_t> keys) {
    for (int32_t key : keys) ASSERT_EQ(cel_rbTreeInsert(&tree, &records[key]), 0) << key;
  }

  cel_rbTree tree{};
  std::vector<Record> records;
};

TEST(RbTreeArguments, NullPointersAreRefused) {
  cel_rbTree tree{};
  Record record{1, 0};
  void *out = &record;
  EXPECT_EQ(cel_rbTreeCreate(nullptr, compareRecords), 1);
  EXPECT_EQ(cel_rbTreeCreate(&tree, nullptr), 1);
  ASSERT_EQ(cel_rbTreeCreate(&tree, compareRecords), 0);
  EXPECT_EQ(tree.root, nullptr);

  EXPECT_EQ(cel_rbTreeInsert(nullptr, &record), 1);
  EXPECT_EQ(cel_rbTreeInsert(&tree, nullptr), 1);
  EXPECT_EQ(tree.root, nullptr);
  EXPECT_EQ(cel_rbTreeLookup(nullptr, &record, &out), 1);
  EXPECT_EQ(cel_rbTreeLookup(&tree, nullptr, &out), 1);
  EXPECT_EQ(cel_rbTreeLookup(&tree, &record, nullptr), 1);
  EXPECT_EQ(cel_rbTreeDelete(nullptr, &record, &out), 1);
  EXPECT_EQ(cel_rbTreeDelete(&tree, nullptr, &out), 1);
  EXPECT_EQ(cel_rbTreeDelete(&tree, &record, nullptr), 1);
  EXPECT_EQ(cel_rbTreeVerifyProperties(nullptr), 1);
  EXPECT_EQ(cel_rbTreeDestroy(nullptr), 1);
  EXPECT_EQ(cel_rbTreeForEach(nullptr, [](void *, void *) -> int32_t { return 0; }, nullptr), 1);
  EXPECT_EQ(cel_rbTreeForEach(&tree, nullptr, nullptr), 1);
  EXPECT_EQ(cel_rbTreeDestroy(&tree), 0);
}

TEST_F(RbTreeTest, LookupAndDeleteInEmptyTreeGiveNull) {
  Record probe{5, 0};
  void *out = &probe;
  EXPECT_EQ(cel_rbTreeLookup(&tree, &probe, &out), 0);
  EXPECT_EQ(out, nullptr);
  out = &probe;
  EXPECT_EQ(cel_rbTreeDelete(&tree, &probe, &out), 0);
  EXPECT_EQ(out, nullptr);
}

TEST_F(RbTreeTest, EqualKeyReplacesStoredPointerWithoutNewNode) {
  makeRecords(10);
  insertKeys({3, 1, 4, 0, 9, 2, 6});
  Record twin{4, 999};
  std::string output = captureStdout([&] { EXPECT_EQ(cel_rbTreeInsert(&tree, &twin), 0); });
  EXPECT_EQ(output, "");
  EXPECT_EQ(inOrder(tree).size(), 7u);
  void *out = nullptr;
  Record probe{4, 0};
  ASSERT_EQ(cel_rbTreeLookup(&tree, &probe, &out), 0);
  EXPECT_EQ(out, &twin);
  ASSERT_EQ(cel_rbTreeDelete(&tree, &probe, &out), 0);
  EXPECT_EQ(out, &twin);
  expectSound(tree);
}

TEST_F(RbTreeTest, DeletingMissingKeyChangesNothing) {
  makeRecords(10);
  insertKeys({5, 2, 8});
  Record probe{7, 0};
  void *out = &probe;
  EXPECT_EQ(cel_rbTreeDelete(&tree, &probe, &out), 0);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(keysOf(inOrder(tree)), (std::vector<int32_t>{2, 5, 8}));
}

TEST_F(RbTreeTest, DeletingNodeWithTwoChildrenReturnsItsOwnItem) {
  makeRecords(15);
  for (int32_t key = 0; key < 15; ++key) ASSERT_EQ(cel_rbTreeInsert(&tree, &records[key]), 0);
  cel_rbTreeNode *victim = tree.root;
  ASSERT_NE(victim->left, nullptr);
  ASSERT_NE(victim->right, nullptr);
  Record *victimRecord = static_cast<Record *>(victim->item);
  int32_t victimKey = victimRecord->key;

  void *out = nullptr;
  ASSERT_EQ(cel_rbTreeDelete(&tree, victimRecord, &out), 0);
  EXPECT_EQ(out, victimRecord);
  expectSound(tree);

  std::vector<Record *> expected;
  for (Record &record : records) {
    if (record.key != victimKey) expected.push_back(&record);
  }
  EXPECT_EQ(inOrder(tree), expected);  // same pointers, not only same keys
  ASSERT_EQ(cel_rbTreeLookup(&tree, victimRecord, &out), 0);
  EXPECT_EQ(out, nullptr);
}

// Insert orders that take every fix-up branch for three nodes: both straight
// cases and both zig-zags end with the middle key as black root and two red
// children, without a diagnostic.
TEST_F(RbTreeTest, ThreeNodeInsertOrdersAllBalance) {
  makeRecords(40);
  const std::vector<std::vector<int32_t>> orders = {
      {10, 20, 30}, {30, 20, 10}, {30, 10, 20}, {10, 30, 20}};
  for (const auto &order : orders) {
    cel_rbTree local{};
    ASSERT_EQ(cel_rbTreeCreate(&local, compareRecords), 0);
    std::string output = captureStdout([&] {
      for (int32_t key : order) EXPECT_EQ(cel_rbTreeInsert(&local, &records[key]), 0);
    });
    EXPECT_EQ(output, "");
    ASSERT_NE(local.root, nullptr);
    EXPECT_EQ(local.root->item, &records[20]);
    EXPECT_EQ(local.root->color, CEL_RBTREE_BLACK);
    ASSERT_NE(local.root->left, nullptr);
    ASSERT_NE(local.root->right, nullptr);
    EXPECT_EQ(local.root->left->item, &records[10]);
    EXPECT_EQ(local.root->right->item, &records[30]);
    EXPECT_EQ(local.root->left->color, CEL_RBTREE_RED);
    EXPECT_EQ(local.root->right->color, CEL_RBTREE_RED);
    expectSound(local);
    EXPECT_EQ(cel_rbTreeDestroy(&local), 0);
  }
}

const void *expectedFirst = nullptr;
int mismatchedCalls = 0;

// Returns magnitudes other than 1 on purpose: only the sign may matter.
int32_t expectFirstArgument(const void *a, const void *b) {
  if (a != expectedFirst) ++mismatchedCalls;
  int32_t difference = static_cast<const Record *>(a)->key - static_cast<const Record *>(b)->key;
  return difference * 1000;
}

TEST(RbTreeCompare, KeyIsAlwaysFirstArgumentAndOnlySignMatters) {
  std::vector<Record> records;
  for (int32_t key = 0; key < 50; ++key) records.push_back({key * 3, 0});
  cel_rbTree tree{};
  ASSERT_EQ(cel_rbTreeCreate(&tree, expectFirstArgument), 0);
  mismatchedCalls = 0;
  for (int32_t index : {25, 3, 40, 11, 0, 49, 17, 33, 8, 21}) {
    expectedFirst = &records[index];
    ASSERT_EQ(cel_rbTreeInsert(&tree, &records[index]), 0);
  }
  Record probe{33, 0};
  expectedFirst = &probe;
  void *out = nullptr;
  ASSERT_EQ(cel_rbTreeLookup(&tree, &probe, &out), 0);
  EXPECT_EQ(out, &records[11]);
  probe.key = 34;
  ASSERT_EQ(cel_rbTreeLookup(&tree, &probe, &out), 0);
  EXPECT_EQ(out, nullptr);
  probe.key = 51;
  ASSERT_EQ(cel_rbTreeDelete(&tree, &probe, &out), 0);
  EXPECT_EQ(out, &records[17]);
  EXPECT_EQ(mismatchedCalls, 0);
  expectSound(tree);
  EXPECT_EQ(cel_rbTreeDestroy(&tree), 0);
}

TEST_F(RbTreeTest, DestroyFreesNodesButLeavesItemsAlone) {
  makeRecords(100);
  for (Record &record : records) ASSERT_EQ(cel_rbTreeInsert(&tree, &record), 0);
  ASSERT_EQ(cel_rbTreeDestroy(&tree), 0);
  EXPECT_EQ(tree.root, nullptr);
  EXPECT_EQ(tree.compare, nullptr);
  for (const Record &record : records) EXPECT_EQ(record.payload, record.key * 7);
  // A destroyed tree has no order any more; it must be created again.
  EXPECT_EQ(cel_rbTreeInsert(&tree, &records[0]), 1);
  EXPECT_EQ(tree.root, nullptr);
  EXPECT_EQ(cel_rbTreeDestroy(&tree), 0);  // destroying twice is harmless
}

TEST_F(RbTreeTest, ForEachVisitsInOrderAndStopsOnRequest) {
  makeRecords(20);
  insertKeys({7, 3, 19, 0, 12, 5, 16});
  EXPECT_EQ(keysOf(inOrder(tree)), (std::vector<int32_t>{0, 3, 5, 7, 12, 16, 19}));
  std::vector<int32_t> seen;
  ASSERT_EQ(cel_rbTreeForEach(
                &tree,
                [](void *item, void *context) -> int32_t {
                  auto *keys = static_cast<std::vector<int32_t> *>(context);
                  keys->push_back(static_cast<Record *>(item)->key);
                  return keys->size() == 3 ? 1 : 0;
                },
                &seen),
            0);
  EXPECT_EQ(seen, (std::vector<int32_t>{0, 3, 5}));
}

TEST_F(RbTreeTest, SortedInsertsStayBalanced) {
  // The owner inserts ids in increasing order; the height must stay within
  // the red-black bound 2*log2(n+1) for that pattern and for its mirror.
#ifdef NDEBUG
  constexpr int32_t kCount = 100000;
#else
  constexpr int32_t kCount = 5000;  // debug builds check the whole tree per insert
#endif
  makeRecords(kCount);
  for (Record &record : records) ASSERT_EQ(cel_rbTreeInsert(&tree, &record), 0);
  expectSound(tree);
  double bound = 2.0 * std::log2(kCount + 1.0);
  EXPECT_LE(depthOf(tree.root), bound);

  cel_rbTree mirror{};
  ASSERT_EQ(cel_rbTreeCreate(&mirror, compareRecords), 0);
  for (int32_t key = kCount - 1; key >= 0; --key) {
    ASSERT_EQ(cel_rbTreeInsert(&mirror, &records[key]), 0);
  }
  expectSound(mirror);
  EXPECT_LE(depthOf(mirror.root), bound);
  EXPECT_EQ(cel_rbTreeDestroy(&mirror), 0);
}

// ---------------------------------------------------------------------------
// Property check.  The trees below are damaged by hand and repaired before
// they are destroyed.

// Length of the diagnostic "(<function>, cel_rbTree, <line>) <message>" found
// at `from` in `text`, or 0 when there is none.
size_t diagnosticAt(const std::string &text, size_t from, const std::string &function,
                    const std::string &message) {
  const std::string head = "(" + function + ", cel_rbTree, ";
  if (text.compare(from, head.size(), head) != 0) return 0;
  size_t position = from + head.size();
  size_t digits = position;
  while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') ++digits;
  if (digits == position) return 0;
  const std::string tail = ") " + message;
  if (text.compare(digits, tail.size(), tail) != 0) return 0;
  return digits + tail.size() - from;
}

std::string propertyMessage(int property) {
  return "Error in tree property " + std::to_string(property) + "\n";
}

// Runs the check and expects code 2 with exactly the one diagnostic line.
void expectViolation(cel_rbTree &tree, int property) {
  int32_t result = -1;
  std::string output = captureStdout([&] { result = cel_rbTreeVerifyProperties(&tree); });
  EXPECT_EQ(result, 2);
  EXPECT_EQ(diagnosticAt(output, 0, "cel_rbTreeVerifyProperties", propertyMessage(property)),
            output.size())
      << output;
}

// Expects the check's line for property 1 followed by the operation's own.
[[maybe_unused]] void expectMutationReport(const std::string &output, const std::string &function) {
  size_t first = diagnosticAt(output, 0, "cel_rbTreeVerifyProperties", propertyMessage(1));
  ASSERT_GT(first, 0u) << output;
  EXPECT_EQ(first + diagnosticAt(output, first, function,
                                 "Error in tree properties, error code 2\n"),
            output.size())
      << output;
}

TEST_F(RbTreeTest, PropertyCheckNamesEachViolation) {
  makeRecords(60);
  insertKeys({10, 20, 30, 40, 50});  // 20B(10B, 40B(30R, 50R))
  cel_rbTreeNode *root = tree.root;
  cel_rbTreeNode *node10 = root->left;
  cel_rbTreeNode *node40 = root->right;
  ASSERT_EQ(node10->item, &records[10]);
  ASSERT_EQ(node40->item, &records[40]);
  ASSERT_EQ(node40->left->color, CEL_RBTREE_RED);
  expectSound(tree);

  node40->left->color = 7;
  expectViolation(tree, 1);
  node40->left->color = CEL_RBTREE_RED;

  root->color = CEL_RBTREE_RED;
  expectViolation(tree, 2);
  root->color = CEL_RBTREE_BLACK;

  node40->color = CEL_RBTREE_RED;  // red with red children
  expectViolation(tree, 4);
  node40->color = CEL_RBTREE_BLACK;

  node10->color = CEL_RBTREE_RED;  // one black fewer on the left paths
  expectViolation(tree, 5);
  node10->color = CEL_RBTREE_BLACK;

  // Several violations at once: the first in the fixed order is reported.
  node40->color = CEL_RBTREE_RED;
  node10->color = 9;
  expectViolation(tree, 1);
  node10->color = CEL_RBTREE_BLACK;
  root->color = CEL_RBTREE_RED;
  expectViolation(tree, 2);
  root->color = CEL_RBTREE_BLACK;
  node40->color = CEL_RBTREE_BLACK;
  expectSound(tree);
}

TEST(RbTreeCheck, DegenerateChainDoesNotExhaustTheStack) {
  // A million black nodes in one right-leaning chain: far deeper than any
  // recursive walk could go on a default thread stack.
  constexpr size_t kLength = 1000000;
  std::vector<cel_rbTreeNode> chain(kLength);
  for (size_t index = 0; index < kLength; ++index) {
    chain[index] = {CEL_RBTREE_BLACK, index == 0 ? nullptr : &chain[index - 1], nullptr,
                    index + 1 < kLength ? &chain[index + 1] : nullptr, &chain[index]};
  }
  cel_rbTree tree{&chain[0], compareRecords};
  expectViolation(tree, 5);
  size_t visited = 0;
  cel_rbTreeForEach(
      &tree,
      [](void *, void *context) -> int32_t {
        ++*static_cast<size_t *>(context);
        return 0;
      },
      &visited);
  EXPECT_EQ(visited, kLength);
  tree.root = nullptr;  // the nodes belong to the vector
}

// Mutations on a damaged tree: debug builds check the whole tree afterwards
// and report; release builds keep mutations O(log n) and do not notice.
TEST_F(RbTreeTest, FullCheckAfterMutationOnlyInDebugBuilds) {
  makeRecords(60);
  insertKeys({10, 20, 30, 40});
  cel_rbTreeNode *node10 = tree.root->left;
  ASSERT_EQ(node10->item, &records[10]);
  node10->color = 7;  // off the path of the mutations below

  int32_t insertResult = -1;
  int32_t deleteResult = -1;
  void *out = nullptr;
  std::string insertOutput =
      captureStdout([&] { insertResult = cel_rbTreeInsert(&tree, &records[50]); });
  std::string deleteOutput =
      captureStdout([&] { deleteResult = cel_rbTreeDelete(&tree, &records[50], &out); });
  EXPECT_EQ(out, &records[50]);
#ifdef NDEBUG
  EXPECT_EQ(insertResult, 0);
  EXPECT_EQ(deleteResult, 0);
  EXPECT_EQ(insertOutput, "");
  EXPECT_EQ(deleteOutput, "");
#else
  EXPECT_EQ(insertResult, 2);
  EXPECT_EQ(deleteResult, 2);
  expectMutationReport(insertOutput, "cel_rbTreeInsert");
  expectMutationReport(deleteOutput, "cel_rbTreeDelete");
#endif
  node10->color = CEL_RBTREE_BLACK;
  expectSound(tree);
}

// ---------------------------------------------------------------------------
// Random sequences against a std::map model.

// Inserts `keyCount` keys in random order with random deletes in between
// (some of keys not stored), then deletes everything that is left.  Every
// `checkEvery` mutations the tree is checked in full; lookups and the
// returned items are compared with the model throughout.
void runRandomSequence(int32_t keyCount, int checkEvery, uint32_t seed) {
  std::vector<Record> first;
  std::vector<Record> second;  // same keys: inserting one replaces the other
  for (int32_t key = 0; key < keyCount; ++key) {
    first.push_back({key, 1});
    second.push_back({key, 2});
  }
  std::mt19937 random(seed);
  std::vector<int32_t> order(keyCount);
  for (int32_t key = 0; key < keyCount; ++key) order[key] = key;
  std::shuffle(order.begin(), order.end(), random);

  cel_rbTree tree{};
  ASSERT_EQ(cel_rbTreeCreate(&tree, compareRecords), 0);
  std::map<int32_t, Record *> model;
  long mutations = 0;
  auto afterMutation = [&] {
    if (++mutations % checkEvery == 0) expectSound(tree);
  };
  auto deleteKey = [&](int32_t key) {
    Record probe{key, 0};
    void *out = &probe;
    ASSERT_EQ(cel_rbTreeDelete(&tree, &probe, &out), 0);
    auto found = model.find(key);
    ASSERT_EQ(out, found == model.end() ? nullptr : found->second) << key;
    if (found != model.end()) model.erase(found);
    afterMutation();
  };

  std::uniform_int_distribution<int32_t> anyKey(0, keyCount - 1);
  for (int32_t key : order) {
    Record *item = (random() & 1) ? &first[key] : &second[key];
    ASSERT_EQ(cel_rbTreeInsert(&tree, item), 0);
    model[key] = item;
    afterMutation();
    if (random() % 3 == 0) deleteKey(anyKey(random));
    if (random() % 4 == 0) {  // re-insert a random key: new node or replacement
      int32_t again = anyKey(random);
      ASSERT_EQ(cel_rbTreeInsert(&tree, &second[again]), 0);
      model[again] = &second[again];
      afterMutation();
    }
    if (random() % 5 == 0) {
      Record probe{anyKey(random), 0};
      void *out = &probe;
      ASSERT_EQ(cel_rbTreeLookup(&tree, &probe, &out), 0);
      auto found = model.find(probe.key);
      ASSERT_EQ(out, found == model.end() ? nullptr : found->second);
    }
  }
  expectSound(tree);
  std::vector<Record *> expected;
  for (const auto &entry : model) expected.push_back(entry.second);
  ASSERT_EQ(inOrder(tree), expected);

  std::shuffle(order.begin(), order.end(), random);
  for (int32_t key : order) deleteKey(key);
  EXPECT_TRUE(model.empty());
  EXPECT_EQ(tree.root, nullptr);
  EXPECT_EQ(cel_rbTreeDestroy(&tree), 0);
}

TEST(RbTreeRandom, FiveThousandKeysCheckedAfterEveryMutation) {
  runRandomSequence(5000, 1, 20240611u);
}

TEST(RbTreeRandom, HundredThousandKeysCheckedPeriodically) {
#ifdef NDEBUG
  constexpr int32_t kKeys = 100000;
#else
  constexpr int32_t kKeys = 8000;  // debug builds check the whole tree per mutation
#endif
  runRandomSequence(kKeys, 1000, 987654321u);
}

}  // namespace
