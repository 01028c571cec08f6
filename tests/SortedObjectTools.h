// What tests of sorted lists have in common.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "CoreClasses/SortedObjectList.h"

namespace Orvane {

class SortedItem : public SortedObject {
 public:
  explicit SortedItem(std::uint64_t key, std::uint64_t tie = 0) : key_(key), tie_(tie) {}
  std::uint64_t GetSortKey() override { return key_; }
  std::uint64_t GetSortTie() override { return tie_; }

  std::uint64_t Key() const { return key_; }
  std::uint64_t Tie() const { return tie_; }
  void SetKey(std::uint64_t key) { key_ = key; }

 private:
  std::atomic<std::uint64_t> key_;  // read by whichever thread sorts
  const std::uint64_t tie_;
};

using SortedItems = std::vector<SortedObject*>;

class FunctionFinder : public SortedObjectFinder {
 public:
  explicit FunctionFinder(std::function<bool(SortedObject*)> check) : check_(std::move(check)) {}
  bool Check(SortedObject* object) override { return check_(object); }

 private:
  const std::function<bool(SortedObject*)> check_;
};

// What a walk that begins now sees, in order.
inline SortedItems Seen(SortedObjectList* list) {
  SortedItems seen;
  FunctionFinder finder([&seen](SortedObject* object) {
    seen.push_back(object);
    return false;
  });
  list->Iterate(&finder, /*forceSort=*/false);
  return seen;
}

}  // namespace Orvane
