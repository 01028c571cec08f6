#include "Cache/CommandEntry.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace Orvane {
namespace {

constexpr std::size_t kRoomKept = 1024;
// Fewer are sorted by comparing.
constexpr std::size_t kFew = 128;
constexpr unsigned kMostDigitBits = 11;

using Field = std::uint64_t CommandEntry::*;

struct FieldRange {
  std::uint64_t least;
  unsigned bits;  // of the difference between the greatest and the least
  bool isInOrder;
};

FieldRange RangeOf(const CommandEntry* entries, std::size_t count, Field field) {
  std::uint64_t least = entries[0].*field;
  std::uint64_t greatest = least;
  bool isInOrder = true;
  for (std::size_t k = 1; k < count; ++k) {
    const std::uint64_t value = entries[k].*field;
    isInOrder = isInOrder && entries[k - 1].*field <= value;
    least = std::min(least, value);
    greatest = std::max(greatest, value);
  }
  return {least, static_cast<unsigned>(std::bit_width(greatest - least)), isInOrder};
}

// Sorts by one field and leaves equal ones in the order in which they stand: digit by digit, the
// lowest first. One of the two arrays has the result.
class DigitSorter {
 public:
  DigitSorter(CommandEntry* entries, CommandEntry* room, std::size_t count)
      : from_(entries),
        to_(room),
        count_(count),
        // No more piles than the entries pay for.
        mostBits_(std::min(kMostDigitBits, static_cast<unsigned>(std::bit_width(count)))) {}

  void SortBy(Field field) {
    const FieldRange range = RangeOf(from_, count_, field);
    if (range.isInOrder) return;
    const unsigned digits = (range.bits + mostBits_ - 1) / mostBits_;
    const unsigned digitBits = (range.bits + digits - 1) / digits;
    for (unsigned digit = 0; digit < digits; ++digit) {
      Distribute(field, range.least, digit * digitBits, digitBits);
    }
  }
  const CommandEntry* GetResult() const { return from_; }

 private:
  void Distribute(Field field, std::uint64_t least, unsigned shift, unsigned bits) {
    const std::uint64_t mask = (std::uint64_t{1} << bits) - 1;
    const auto digitOf = [=](const CommandEntry& entry) {
      return static_cast<std::size_t>(((entry.*field - least) >> shift) & mask);
    };
    std::array<std::size_t, (std::size_t{1} << kMostDigitBits)> places;
    std::fill_n(places.begin(), mask + 1, std::size_t{0});
    for (std::size_t k = 0; k < count_; ++k) ++places[digitOf(from_[k])];
    std::size_t before = 0;
    for (std::size_t digit = 0; digit <= mask; ++digit) {
      before += std::exchange(places[digit], before);
    }
    for (std::size_t k = 0; k < count_; ++k) to_[places[digitOf(from_[k])]++] = from_[k];
    std::swap(from_, to_);
  }

  CommandEntry* from_;
  CommandEntry* to_;
  const std::size_t count_;
  const unsigned mostBits_;
};

}  // namespace

void SortCommandEntries(CommandEntries* entries) {
  const std::size_t count = entries->size();
  std::unique_ptr<CommandEntry[]> room;
  if (count >= kFew) room.reset(new (std::nothrow) CommandEntry[count]);
  if (!room) {
    std::sort(entries->begin(), entries->end(),
              [](const CommandEntry& a, const CommandEntry& b) { return a.IsBefore(b); });
    return;
  }
  DigitSorter sorter(entries->data(), room.get(), count);
  sorter.SortBy(&CommandEntry::number);
  sorter.SortBy(&CommandEntry::key);
  if (sorter.GetResult() == room.get()) std::copy_n(room.get(), count, entries->begin());
}

void ReleaseRoomIfEmpty(CommandEntries* entries) {
  if (entries->empty() && entries->capacity() > kRoomKept) CommandEntries().swap(*entries);
}

}  // namespace Orvane
