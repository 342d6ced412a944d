// How the content list stores a large library compactly: the id table
// (checked against a plain map through a long random run of changes), the
// entries' names and the tag pool (ids across many blocks, the length
// limit, concurrent writers).
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "content/dmsClmApi.h"

namespace {

TEST(ListStorage, IdTableAgreesWithAMapThroughAddsAndRemoves) {
  dmsClmIdIndex index;
  std::map<uint32_t, dmsContentEntry *> model;
  std::vector<std::unique_ptr<dmsContentEntry>> entries;
  std::mt19937 random(7);
  uint32_t nextId = 1001;
  for (int step = 0; step < 60000; ++step) {
    const unsigned action = random() % 10;
    if (action < 5 || model.empty()) {  // add, as the list does: the next id
      entries.push_back(std::make_unique<dmsContentEntry>());
      entries.back()->id = nextId++;
      index.insert(entries.back().get());
      model[entries.back()->id] = entries.back().get();
    } else if (action < 9) {  // remove a listed id, or one never listed
      const uint32_t id = 1001 + random() % (nextId - 1000);
      const auto found = model.find(id);
      EXPECT_EQ(index.remove(id), found == model.end() ? nullptr : found->second) << id;
      if (found != model.end()) model.erase(found);
    } else {  // replace under the same id
      auto at = model.lower_bound(1001 + random() % (nextId - 1000));
      if (at == model.end()) continue;
      entries.push_back(std::make_unique<dmsContentEntry>());
      entries.back()->id = at->first;
      index.insert(entries.back().get());
      at->second = entries.back().get();
    }
    if (step % 1000 == 0) {
      ASSERT_EQ(index.size(), model.size());
      for (uint32_t id = 1000; id <= nextId; ++id) {
        const auto found = model.find(id);
        ASSERT_EQ(index.find(id), found == model.end() ? nullptr : found->second) << id;
      }
    }
  }
  // An id below every listed one (a wrapped counter) still lands in order.
  dmsContentEntry low;
  low.id = 5;
  index.insert(&low);
  EXPECT_EQ(index.find(5), &low);
  EXPECT_EQ(index.find(model.begin()->first), model.begin()->second);
}

TEST(ListStorage, IdTableTakesBatchesInAnyOrderOfIds) {
  dmsClmIdIndex index;
  std::map<uint32_t, dmsContentEntry *> model;
  std::vector<std::unique_ptr<dmsContentEntry>> entries;
  std::mt19937 random(11);
  const auto add = [&](uint32_t id) {
    entries.push_back(std::make_unique<dmsContentEntry>());
    entries.back()->id = id;
    index.insert(entries.back().get());
    model[id] = entries.back().get();  // the last added under an id stays
  };
  for (int round = 0; round < 40; ++round) {
    {
      dmsClmIdIndex::Batch batch(index);
      // Ids kept from an earlier run come in the order of the walk; some
      // again (a refresh), some above every one listed (new files).
      for (int i = 0; i < 500; ++i) add(random() % 2 == 0 ? 1001 + random() % 20000 : 30000 + round * 500 + i);
    }
    for (int i = 0; i < 200; ++i) {
      const uint32_t id = 1001 + random() % 20000;
      const auto found = model.find(id);
      EXPECT_EQ(index.remove(id), found == model.end() ? nullptr : found->second) << id;
      if (found != model.end()) model.erase(found);
    }
    ASSERT_EQ(index.size(), model.size()) << round;
  }
  for (uint32_t id = 1000; id < 52000; ++id) {
    const auto found = model.find(id);
    ASSERT_EQ(index.find(id), found == model.end() ? nullptr : found->second) << id;
  }
}

// An entry's name across the length where it moves out of the entry, with
// every byte but NUL, replaced by longer and shorter ones and by a part of
// itself.
TEST(ListStorage, EntryNamesKeepEveryLengthAndByte) {
  dmsClmName name;
  EXPECT_EQ(name.view(), "");
  for (size_t length : {0, 1, 14, 15, 16, 17, 255, 70000}) {
    std::string text(length, 'x');
    for (size_t at = 0; at < length; ++at) text[at] = static_cast<char>(1 + at % 255);
    name = text;
    ASSERT_EQ(name.view(), text) << length;
    EXPECT_EQ(std::strlen(name.c_str()), length) << length;
    if (length < 2) continue;
    name = name.view().substr(1);
    EXPECT_EQ(name.view(), text.substr(1)) << length;
    name = name.view().substr(0, name.size() - 1);
    EXPECT_EQ(name.view(), text.substr(1, length - 2)) << length;
  }
}

TEST(ListStorage, TagPoolKeepsEachTextOnceUnderAStableId) {
  dmsTagPool pool;
  EXPECT_EQ(pool.intern(""), 0u);
  EXPECT_EQ(pool.text(0), nullptr);
  // Enough texts to fill several id blocks and text chunks, and a long one
  // that gets a chunk of its own.
  std::vector<std::string> texts;
  for (int i = 0; i < 40000; ++i) texts.push_back("Artist " + std::to_string(i * 7919));
  texts.push_back(std::string(20000, 'x'));
  std::vector<uint32_t> ids;
  for (const std::string &text : texts) ids.push_back(pool.intern(text));
  for (size_t i = 0; i < texts.size(); ++i) {
    ASSERT_NE(ids[i], 0u);
    EXPECT_EQ(pool.intern(texts[i]), ids[i]);
    EXPECT_STREQ(pool.text(ids[i]), texts[i].substr(0, dmsTagPool::kMaxText).c_str());
  }
  // A lying file's endless title is cut, and never inside a character.
  std::string accents;
  for (int i = 0; i < 1000; ++i) accents += "\xC3\xA9";  // é
  const std::string cut = pool.text(pool.intern("a" + accents));
  EXPECT_LE(cut.size(), dmsTagPool::kMaxText);
  EXPECT_EQ(cut.size() % 2, 1u) << "a split two-byte character";
}

TEST(ListStorage, TagPoolWritersOnSeveralThreadsAgree) {
  dmsTagPool pool;
  constexpr int kThreads = 4, kTexts = 5000;
  constexpr int kStrides[kThreads] = {1, 3, 7, 11};  // prime to kTexts: each visits all
  std::vector<std::vector<uint32_t>> seen(kThreads, std::vector<uint32_t>(kTexts));
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kTexts; ++i) {
        const int which = (i * kStrides[t]) % kTexts;  // each thread in its own order
        seen[t][which] = pool.intern("Genre " + std::to_string(which));
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  for (int i = 0; i < kTexts; ++i) {
    for (int t = 1; t < kThreads; ++t) ASSERT_EQ(seen[t][i], seen[0][i]);
    ASSERT_EQ(pool.text(seen[0][i]), "Genre " + std::to_string(i));
  }
}

}  // namespace
