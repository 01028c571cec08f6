// Counts and finds occupied slots by rank.
#pragma once

#include <cstddef>
#include <memory>

namespace Orvane {

// For a fixed number of slots, each occupied or not: how many before this one, which one is the
// n-th. Both, and every change, are logarithmic (a binary indexed tree).
class RankTree {
 public:
  // All slots empty; `slots` is a power of two. False, with nothing changed, when memory is short.
  bool Reset(std::size_t slots);
  bool IsEmpty() const { return !sums_; }
  // Frees the memory.
  void Forget() { sums_.reset(); }

  void Occupy(std::size_t slot);
  void Vacate(std::size_t slot);
  std::size_t CountBefore(std::size_t slot) const;
  // The occupied slot with `rank` occupied ones before it. REQUIRES: there is one.
  std::size_t SlotOfRank(std::size_t rank) const;

 private:
  std::unique_ptr<std::size_t[]> sums_;  // from 1; [i] covers the (i & -i) slots that end at i
  std::size_t slots_ = 0;
};

}  // namespace Orvane
