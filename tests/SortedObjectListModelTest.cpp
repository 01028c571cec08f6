// Sorted lists against a plain model, and under several threads.
#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <utility>

#include "CoreClasses/SortedObjectList.h"
#include "OrvaneTest.h"
#include "SortedObjectTools.h"

namespace Orvane {
namespace {

using Item = SortedItem;
using Items = SortedItems;
using Finder = FunctionFinder;

class Model {
 public:
  struct Row {
    Item* item;
    std::uint64_t key;
    std::uint64_t tie;
    std::uint64_t entry;  // of its own for every addition
  };

  explicit Model(bool ascending) : ascending_(ascending) {}

  void Add(Item* item) {
    const Row row{item, item->Key(), item->Tie(), ++entries_};
    if (depth_ > 0) {
      rows_.insert(rows_.begin(), row);
      needsSort_ = true;
    } else {
      rows_.insert(std::upper_bound(rows_.begin(), rows_.end(), row, Before()), row);
    }
  }
  void Resort(Item* item) {
    if (depth_ > 0) {
      needsSort_ = true;
    } else {
      Remove(item);
      Add(item);
    }
  }
  void Sort() {
    needsSort_ = true;
    SortIfDue();
  }
  void BeginWalk() { ++depth_; }
  void EndWalk() {
    --depth_;
    SortIfDue();
  }
  void Remove(Item* item) { rows_.erase(Find(item)); }

  bool Has(Item* item) { return Find(item) != rows_.end(); }
  bool HasEntry(std::uint64_t entry) const {
    return std::any_of(rows_.begin(), rows_.end(), [=](const Row& r) { return r.entry == entry; });
  }
  const std::vector<Row>& Rows() const { return rows_; }

 private:
  std::function<bool(const Row&, const Row&)> Before() const {
    return [ascending = ascending_](const Row& a, const Row& b) {
      const auto left = std::pair(a.key, a.tie);
      const auto right = std::pair(b.key, b.tie);
      return ascending ? left < right : left > right;
    };
  }
  std::vector<Row>::iterator Find(Item* item) {
    return std::find_if(rows_.begin(), rows_.end(), [=](const Row& r) { return r.item == item; });
  }
  void SortIfDue() {
    if (depth_ > 0 || !needsSort_) return;
    needsSort_ = false;
    for (Row& row : rows_) row = Row{row.item, row.item->Key(), row.item->Tie(), row.entry};
    std::stable_sort(rows_.begin(), rows_.end(), Before());
  }

  const bool ascending_;
  std::vector<Row> rows_;
  std::uint64_t entries_ = 0;
  int depth_ = 0;
  bool needsSort_ = false;
};

class SortedObjectListModelTest : public OrvaneTest, public SortedObjectFinder {
 protected:
  // Does the same to both and compares.
  void Run(bool ascending, unsigned seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    random_.seed(seed);
    list_ = std::make_unique<SortedObjectList>(ascending, /*threadSafe=*/true);
    model_ = std::make_unique<Model>(ascending);
    items_.clear();
    for (int i = 0; i < 30; ++i) items_.push_back(std::make_unique<Item>(Number(8), Number(3)));
    for (int step = 0; step < 5000; ++step) {
      Step();
      ExpectSame();
      if (HasFailure()) return;
    }
    list_.reset();
  }

 private:
  struct Search {
    std::vector<Model::Row> rows;  // at its beginning
    std::size_t next = 0;
    bool removing = false;
    bool found = false;
  };

  unsigned Number(unsigned limit) { return static_cast<unsigned>(random_()) % limit; }
  bool IsChecked(Item* item) const {
    return std::any_of(searches_.begin(), searches_.end(), [=](const Search* search) {
      return search->removing && search->next > 0 && search->rows[search->next - 1].item == item;
    });
  }
  void ExpectSame() {
    ASSERT_EQ(model_->Rows().size(), list_->GetCount());
    Items expected;
    for (const Model::Row& row : model_->Rows()) expected.push_back(row.item);
    ASSERT_EQ(expected.empty() ? nullptr : expected.front(), list_->GetFirst());
    ASSERT_EQ(expected, Seen(list_.get()));
  }

  void Step() {
    Item* const item = items_[Number(30)].get();
    switch (Number(searches_.size() < 3 ? 12 : 9)) {
      case 0:
      case 1:
      case 2:
      case 3:
        if (model_->Has(item) || IsChecked(item)) return;
        list_->AddObject(item);
        return model_->Add(item);
      case 4:
      case 5:
        return item->SetKey(Number(8));
      case 6:
        if (IsChecked(item)) return;
        item->SetKey(Number(8));
        ASSERT_EQ(model_->Has(item), item->Resort());
        if (model_->Has(item)) model_->Resort(item);
        return;
      case 7:
        return RemoveFirst();
      case 8:
        if (Number(4) != 0) return;
        list_->Sort();
        return model_->Sort();
      default:
        return Walk(Number(3));
    }
  }
  void RemoveFirst() {
    SortedObject* const expected = model_->Rows().empty() ? nullptr : model_->Rows().front().item;
    if (expected) model_->Remove(model_->Rows().front().item);
    ASSERT_EQ(expected, list_->RemoveFirst());
  }
  void Walk(unsigned kind) {
    Search search;
    search.rows = model_->Rows();
    search.removing = kind != 0;
    searches_.push_back(&search);
    model_->BeginWalk();
    if (kind == 0) {
      list_->Iterate(this, /*forceSort=*/false);
    } else if (kind == 1) {
      SortedObject* const found = list_->FindAndRemove(this);
      EXPECT_EQ(search.found ? search.rows[search.next - 1].item : nullptr, found);
    } else {
      EXPECT_EQ(search.found, list_->RemoveAllMatching(this));
    }
    searches_.pop_back();
    model_->EndWalk();
    if (kind != 2 && search.found) return;
    SkipGone(&search);
    EXPECT_EQ(search.rows.size(), search.next);
  }
  void SkipGone(Search* search) {
    while (search->next < search->rows.size() &&
           !model_->HasEntry(search->rows[search->next].entry)) {
      ++search->next;
    }
  }
  bool Check(SortedObject* object) override {
    Search& search = *searches_.back();
    SkipGone(&search);
    if (search.next == search.rows.size()) {
      ADD_FAILURE() << "checked too many";
      return true;
    }
    const Model::Row row = search.rows[search.next++];
    EXPECT_EQ(row.item, object);
    if (Number(3) == 0) Step();
    // What was taken out meanwhile is not the match.
    if (!model_->HasEntry(row.entry) || Number(24) != 0) return false;
    if (search.removing) model_->Remove(row.item);
    search.found = true;
    return true;
  }

  std::mt19937 random_;
  std::unique_ptr<SortedObjectList> list_;
  std::unique_ptr<Model> model_;
  std::vector<std::unique_ptr<Item>> items_;
  std::vector<Search*> searches_;
};

TEST_F(SortedObjectListModelTest, AscendingListBehavesAsAPlainVectorDoes) {
  Run(/*ascending=*/true, std::random_device{}());
}

TEST_F(SortedObjectListModelTest, DescendingListBehavesAsAPlainVectorDoes) {
  Run(/*ascending=*/false, std::random_device{}());
}

class SortedObjectListThreadTest : public OrvaneTest {
 protected:
  static constexpr std::size_t kThreads = 4;
  static constexpr std::size_t kItems = 32;

  void RunThreads(const std::function<void(std::size_t number)>& work) {
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
    for (std::thread& thread : threads) thread.join();
  }

  void TearDown() override {
    owned_.reset();
    OrvaneTest::TearDown();
  }

  std::unique_ptr<SortedObjectList> owned_{
      std::make_unique<SortedObjectList>(/*ascending=*/true, /*threadSafe=*/true)};
  SortedObjectList& list_ = *owned_;
};

TEST_F(SortedObjectListThreadTest, EveryObjectIsTakenOutOnce) {
  constexpr std::uint64_t kRounds = 2000;
  std::atomic<std::uint64_t> taken{0};
  RunThreads([&](std::size_t number) {
    Finder picker([&](SortedObject* object) { return object->GetSortKey() % 3 == number % 3; });
    Finder deleter([&](SortedObject* object) {
      if (object->GetSortKey() % 16 != number) return false;
      delete object;
      ++taken;
      return true;
    });
    for (std::uint64_t i = 0; i < kRounds; ++i) {
      list_.AddObject(new Item(i * 7919 % 257));
      SortedObject* const object = i % 2 ? list_.FindAndRemove(&picker) : list_.RemoveFirst();
      if (object) ++taken;
      delete object;
      if (i % 64 == 0) list_.RemoveAllMatching(&deleter);
    }
  });
  while (SortedObject* const object = list_.RemoveFirst()) {
    delete object;
    ++taken;
  }
  EXPECT_EQ(kThreads * kRounds, taken);
}

TEST_F(SortedObjectListThreadTest, MembersMoveWhileOthersWalk) {
  std::vector<std::unique_ptr<Item>> items;
  for (std::size_t i = 0; i < kThreads * kItems; ++i) {
    items.push_back(std::make_unique<Item>(i));
    list_.AddObject(items.back().get());
  }
  std::atomic<std::size_t> refused{0};
  RunThreads([&](std::size_t number) {
    Items seen;
    Finder finder([&](SortedObject* object) {
      Item* const own = items[number * kItems + seen.size() % kItems].get();
      own->SetKey(own->Key() * 31 % 1009);
      if (!own->Resort()) ++refused;
      seen.push_back(object);
      return false;
    });
    for (std::size_t i = 0; i < 500; ++i) {
      Item* const own = items[number * kItems + i % kItems].get();
      own->SetKey(i * 7919 % 1009);
      if (!own->Resort()) ++refused;
      if (i % 16 != 0) continue;
      seen.clear();
      list_.Iterate(&finder, /*forceSort=*/i % 32 == 0);
      std::sort(seen.begin(), seen.end());
      if (std::unique(seen.begin(), seen.end()) - seen.begin() != kThreads * kItems) ++refused;
    }
  });
  EXPECT_EQ(0u, refused);
  list_.Sort();
  const Items seen = Seen(&list_);
  EXPECT_EQ(kThreads * kItems, seen.size());
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end(), [](SortedObject* a, SortedObject* b) {
    return a->GetSortKey() < b->GetSortKey();
  }));
}

TEST_F(SortedObjectListThreadTest, WalkAndItsSortAreOneStep) {
  Item first(1), second(2), moved(3);
  for (Item* const item : {&first, &second, &moved}) list_.AddObject(item);
  std::atomic<bool> stop{false};
  std::atomic<std::size_t> wrong{0};
  std::thread reader([&] {
    while (!stop) {
      const Items seen = Seen(&list_);
      if (seen.front() != &first || seen.size() != 3) ++wrong;
    }
  });
  for (int i = 0; i < 2000; ++i) {
    SortedObject* const last = i % 2 ? &second : &moved;
    Finder taker([&](SortedObject* object) {
      if (object != last) return false;
      list_.AddObject(object);
      return true;
    });
    EXPECT_EQ(last, list_.FindAndRemove(&taker));
  }
  stop = true;
  reader.join();
  EXPECT_EQ(0u, wrong);
}

}  // namespace
}  // namespace Orvane
