#include "RankTree.h"

#include <new>

namespace Orvane {
namespace {

std::size_t LowestBit(std::size_t value) {
  return value & (~value + 1);
}

}  // namespace

bool RankTree::Reset(std::size_t slots) {
  std::unique_ptr<std::size_t[]> sums(new (std::nothrow) std::size_t[slots + 1]());
  if (!sums) return false;
  sums_ = std::move(sums);
  slots_ = slots;
  return true;
}

void RankTree::Occupy(std::size_t slot) {
  for (std::size_t i = slot + 1; i <= slots_; i += LowestBit(i)) ++sums_[i];
}

void RankTree::Vacate(std::size_t slot) {
  for (std::size_t i = slot + 1; i <= slots_; i += LowestBit(i)) --sums_[i];
}

std::size_t RankTree::CountBefore(std::size_t slot) const {
  std::size_t count = 0;
  for (std::size_t i = slot; i > 0; i -= LowestBit(i)) count += sums_[i];
  return count;
}

std::size_t RankTree::SlotOfRank(std::size_t rank) const {
  std::size_t slot = 0;
  for (std::size_t step = slots_; step > 0; step /= 2) {
    if (slot + step > slots_ || sums_[slot + step] > rank) continue;
    slot += step;
    rank -= sums_[slot];
  }
  return slot;
}

}  // namespace Orvane
