#include "PointerIndex.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <new>

namespace Orvane {
namespace {

constexpr std::size_t kSmallestTable = 64;

}  // namespace

void PointerIndex::Reserve(std::size_t keys) {
  if (keys <= room_) return;
  if (keys > kNone / (4 * sizeof(Entry))) throw std::bad_alloc();
  const std::size_t size = std::max(kSmallestTable, std::bit_ceil(2 * keys));
  std::unique_ptr<Entry[]> old(new Entry[size]);
  entries_.swap(old);

  const std::size_t oldSize = old ? mask_ + 1 : 0;
  mask_ = size - 1;
  room_ = size / 2;
  shift_ = 64 - static_cast<unsigned>(std::countr_zero(size));
  Clear();
  for (std::size_t i = 0; i < oldSize; ++i) {
    if (old[i].slot != kNone) Insert(old[i].key, old[i].slot);
  }
}

void PointerIndex::Insert(const void* key, std::size_t slot) {
  entries_[Probe(key)] = {key, slot};
}

std::size_t PointerIndex::Find(const void* key) const {
  return entries_ ? entries_[Probe(key)].slot : kNone;
}

// Closes the gap: an entry behind it moves into it unless the gap lies before the entry's home.
void PointerIndex::Erase(const void* key) {
  std::size_t gap = Probe(key);
  for (std::size_t i = (gap + 1) & mask_; entries_[i].slot != kNone; i = (i + 1) & mask_) {
    const std::size_t distanceFromHome = (i - HomeOf(entries_[i].key)) & mask_;
    if (distanceFromHome < ((i - gap) & mask_)) continue;
    entries_[gap] = entries_[i];
    gap = i;
  }
  entries_[gap].slot = kNone;
}

void PointerIndex::Clear() {
  if (entries_) std::fill_n(entries_.get(), mask_ + 1, Entry{nullptr, kNone});
}

std::size_t PointerIndex::HomeOf(const void* key) const {
  // The golden ratio spreads addresses of any alignment over the upper bits.
  const std::uint64_t bits = reinterpret_cast<std::uintptr_t>(key);
  return static_cast<std::size_t>((bits * 0x9E3779B97F4A7C15u) >> shift_);
}

std::size_t PointerIndex::Probe(const void* key) const {
  std::size_t i = HomeOf(key);
  while (entries_[i].slot != kNone && entries_[i].key != key) i = (i + 1) & mask_;
  return i;
}

}  // namespace Orvane
