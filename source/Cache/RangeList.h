// Byte ranges in order: what of a request is still to be handed out, what of it is done.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

namespace Orvane {

// [offset, offset + size). One that would wrap is taken to end at the largest offset there is.
struct ByteRange {
  std::uint64_t offset = 0;
  std::uint64_t size = 0;

  static constexpr std::uint64_t kLargestOffset = std::numeric_limits<std::uint64_t>::max();

  std::uint64_t End() const {
    return size > kLargestOffset - offset ? kLargestOffset : offset + size;
  }
  bool operator==(const ByteRange&) const = default;
};

// Ranges in order, disjoint, adjacent ones merged, none empty. The first few lie inside the list,
// so that a short one allocates nothing; a place is found by halving. Memory is kept until the end.
// Not safe from several threads.
class RangeList {
 public:
  static constexpr std::size_t kRangesWithoutAllocation = 4;
  static constexpr std::size_t kMostRanges =
      std::numeric_limits<std::ptrdiff_t>::max() / sizeof(ByteRange);

  // `most`: how many ranges the list can hold. Memory ends before the largest number is reached.
  explicit RangeList(std::size_t most = kMostRanges);
  RangeList(const RangeList&) = delete;
  RangeList& operator=(const RangeList&) = delete;

  bool IsEmpty() const { return count_ == 0; }
  std::size_t Count() const { return count_; }
  // REQUIRES: index < Count().
  const ByteRange& At(std::size_t index) const { return ranges_[index]; }
  // The first range that ends behind `offset`, or null.
  const ByteRange* FindEndingBehind(std::uint64_t offset) const;

  // Adds a range and merges it with what it meets or touches. One of no bytes changes nothing.
  // Throws with nothing changed: std::length_error "list too long", or when memory is short.
  void Add(ByteRange range);
  // Cuts a range out of the list and answers what was cut: from the start of `range` or, if that
  // lies in no range, from the start of the range that holds its last byte; (0, 0) if there is
  // neither. Cuts one range of the list only and never past its end.
  // KEPT: a request around a range of the list, with neither end in it, finds nothing.
  // One of no bytes cuts nothing, and answers its offset if that lies in a range.
  // Throws as Add, when a cut from the middle leaves two ranges.
  ByteRange Take(ByteRange range);
  void Clear() { count_ = 0; }

 private:
  std::size_t IndexEndingAtOrBehind(std::uint64_t offset) const;
  std::size_t IndexEndingBehind(std::uint64_t offset) const;
  bool Holds(std::size_t index, std::uint64_t offset) const;
  void Insert(std::size_t index, ByteRange range);
  void Erase(std::size_t from, std::size_t to);

  const std::size_t most_;
  std::array<ByteRange, kRangesWithoutAllocation> inside_;
  std::unique_ptr<ByteRange[]> outside_;  // null while the ranges fit inside
  ByteRange* ranges_ = inside_.data();    // one of the two
  std::size_t capacity_ = kRangesWithoutAllocation;
  std::size_t count_ = 0;
};

}  // namespace Orvane
