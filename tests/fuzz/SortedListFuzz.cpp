// Two sorted lists that share their objects, against plain vectors. The input also drives the
// finders: they add, remove, resort, sort and search the lists that are being searched.
#include <algorithm>
#include <array>
#include <memory>
#include <tuple>
#include <vector>

#include "CoreClasses/SortedObjectList.h"
#include "FuzzTools.h"

namespace Orvane::Fuzz {
namespace {

constexpr unsigned kItems = 16;
constexpr std::size_t kDeepest = 3;  // searches within searches

class Item : public SortedObject {
 public:
  std::uint64_t GetSortKey() override { return key; }
  std::uint64_t GetSortTie() override { return tie; }

  std::uint64_t key = 0;
  std::uint64_t tie = 0;
};

class Model {
 public:
  struct Row {
    Item* item;
    std::uint64_t key;
    std::uint64_t tie;
    unsigned entry;  // of its own for every addition
  };

  explicit Model(bool ascending) : ascending_(ascending) {}

  void Add(Item* item) {
    const Row row{item, item->key, item->tie, ++entries_};
    if (depth_ > 0) {
      rows.insert(rows.begin(), row);
      needsSort_ = true;
    } else {
      rows.insert(std::upper_bound(rows.begin(), rows.end(), row, Before{ascending_}), row);
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
  void Remove(Item* item) {
    std::erase_if(rows, [item](const Row& row) { return row.item == item; });
  }
  bool Has(Item* item) const {
    return std::any_of(rows.begin(), rows.end(), [=](const Row& row) { return row.item == item; });
  }
  bool HasEntry(unsigned entry) const {
    return std::any_of(rows.begin(), rows.end(),
                       [=](const Row& row) { return row.entry == entry; });
  }

  std::vector<Row> rows;

 private:
  struct Before {
    bool ascending;
    bool operator()(const Row& a, const Row& b) const {
      const auto left = std::tie(a.key, a.tie);
      const auto right = std::tie(b.key, b.tie);
      return ascending ? left < right : right < left;
    }
  };
  void SortIfDue() {
    if (depth_ > 0 || !needsSort_) return;
    needsSort_ = false;
    for (Row& row : rows) row = Row{row.item, row.item->key, row.item->tie, row.entry};
    std::stable_sort(rows.begin(), rows.end(), Before{ascending_});
  }

  const bool ascending_;
  unsigned entries_ = 0;
  int depth_ = 0;
  bool needsSort_ = false;
};

struct Pair {
  Pair(bool ascending, bool threadSafe) : list(ascending, threadSafe), model(ascending) {}

  SortedObjectList list;
  Model model;
};

// What a search is going to see: the rows at its beginning, less those that leave meanwhile.
struct Search {
  Pair* pair;
  std::vector<Model::Row> rows;
  std::size_t next = 0;
  bool isRemoving = false;
  bool found = false;
};

class SortedListRun : public SortedObjectFinder {
 public:
  explicit SortedListRun(Input* input)
      : input_(input), pairs_{{{true, input->Flag()}, {input->Flag(), input->Flag()}}} {}

  void Run() {
    while (!input_->IsEmpty()) {
      Step();
      for (Pair& pair : pairs_) ExpectSameFront(&pair);
    }
    for (Pair& pair : pairs_) {
      while (!pair.model.rows.empty()) RemoveFirst(&pair);
      RemoveFirst(&pair);
    }
  }

 private:
  void ExpectSameFront(Pair* pair) {
    const std::vector<Model::Row>& rows = pair->model.rows;
    ORVANE_FUZZ_CHECK(pair->list.GetCount() == rows.size());
    ORVANE_FUZZ_CHECK(pair->list.GetFirst() == (rows.empty() ? nullptr : rows.front().item));
  }
  // By a search that removes: it has no owner.
  bool IsChecked(Item* item) const {
    return std::any_of(searches_.begin(), searches_.end(), [=](const Search* search) {
      return search->isRemoving && search->next > 0 && search->rows[search->next - 1].item == item;
    });
  }
  Pair* OwnerOf(Item* item) {
    for (Pair& pair : pairs_) {
      if (pair.model.Has(item)) return &pair;
    }
    return nullptr;
  }

  void Step() {
    const unsigned choice = input_->Byte();
    Pair* const pair = &pairs_[choice >> 7];
    const unsigned kind = choice % (searches_.size() < kDeepest ? 16 : 12);
    if (kind >= 12) return Walk(pair, kind - 12);
    if (kind >= 10) return RemoveFirst(pair);
    if (kind == 9) {
      pair->list.Sort();
      return pair->model.Sort();
    }
    const unsigned number = input_->Byte();
    Item* const item = &items_[number % kItems];
    if (kind < 5) {
      Add(pair, item, number / kItems);
    } else if (kind == 5) {
      item->key = number / kItems;
    } else {
      Resort(item, number / kItems);
    }
  }
  void Add(Pair* pair, Item* item, unsigned key) {
    Pair* const owner = OwnerOf(item);
    if (owner == pair || IsChecked(item)) return;
    if (!owner) {
      item->key = key % 8;
      item->tie = key / 8;
      pair->model.Add(item);
    }
    pair->list.AddObject(item);  // does nothing for a member of the other one
  }
  void Resort(Item* item, unsigned key) {
    item->key = key;
    Pair* const owner = IsChecked(item) ? nullptr : OwnerOf(item);
    ORVANE_FUZZ_CHECK(item->Resort() == (owner != nullptr));
    if (owner) owner->model.Resort(item);
  }
  void RemoveFirst(Pair* pair) {
    Item* const expected = pair->model.rows.empty() ? nullptr : pair->model.rows.front().item;
    if (expected) pair->model.Remove(expected);
    ORVANE_FUZZ_CHECK(pair->list.RemoveFirst() == expected);
  }

  void Walk(Pair* pair, unsigned kind) {
    Search search{pair, pair->model.rows};
    search.isRemoving = kind >= 2;
    searches_.push_back(&search);
    pair->model.BeginWalk();
    if (kind < 2) {
      pair->list.Iterate(this, /*forceSort=*/kind == 1);
    } else if (kind == 2) {
      SortedObject* const found = pair->list.FindAndRemove(this);
      ORVANE_FUZZ_CHECK(found == (search.found ? search.rows[search.next - 1].item : nullptr));
    } else {
      ORVANE_FUZZ_CHECK(pair->list.RemoveAllMatching(this) == search.found);
    }
    searches_.pop_back();
    pair->model.EndWalk();
    if (kind == 1) pair->model.Sort();
    if (kind != 3 && search.found) return;
    SkipGone(&search);
    ORVANE_FUZZ_CHECK(search.next == search.rows.size());
  }
  void SkipGone(Search* search) {
    while (search->next < search->rows.size() &&
           !search->pair->model.HasEntry(search->rows[search->next].entry)) {
      ++search->next;
    }
  }
  bool Check(SortedObject* object) override {
    Search& search = *searches_.back();
    SkipGone(&search);
    ORVANE_FUZZ_CHECK(search.next < search.rows.size());
    const Model::Row row = search.rows[search.next++];
    ORVANE_FUZZ_CHECK(object == row.item);
    const unsigned choice = input_->Byte();
    for (unsigned steps = choice & 3; steps > 1 && !input_->IsEmpty(); --steps) Step();
    // What was taken out meanwhile is not the match.
    if (!search.pair->model.HasEntry(row.entry) || choice < 0xC0) return false;
    search.found = true;
    if (search.isRemoving) TakeOut(search.pair, row.item, /*move=*/choice >= 0xE0);
    return true;
  }
  // A finder may hand what it takes out to another list at once.
  void TakeOut(Pair* pair, Item* item, bool move) {
    pair->model.Remove(item);
    if (!move || IsCheckedTwice(item)) return;
    Pair* const other = pair == &pairs_[0] ? &pairs_[1] : &pairs_[0];
    other->list.AddObject(item);
    other->model.Add(item);
  }
  bool IsCheckedTwice(Item* item) const {
    return std::count_if(searches_.begin(), searches_.end(), [=](const Search* search) {
             return search->isRemoving && search->next > 0 &&
                    search->rows[search->next - 1].item == item;
           }) > 1;
  }

  Input* const input_;
  std::array<Item, kItems> items_;
  std::array<Pair, 2> pairs_;
  std::vector<Search*> searches_;
};

}  // namespace
}  // namespace Orvane::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Orvane::Fuzz;
  const LeakCheck leaks;
  Input input(data, size);
  SortedListRun(&input).Run();
  return 0;
}
