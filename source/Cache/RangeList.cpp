#include "Cache/RangeList.h"

#include <algorithm>
#include <stdexcept>

namespace Orvane {

RangeList::RangeList(std::size_t most) : most_(most) {}

const ByteRange* RangeList::FindEndingBehind(std::uint64_t offset) const {
  const std::size_t index = IndexEndingBehind(offset);
  return index < count_ ? &ranges_[index] : nullptr;
}

void RangeList::Add(ByteRange range) {
  const std::uint64_t end = range.End();
  if (end == range.offset) return;
  const std::size_t first = IndexEndingAtOrBehind(range.offset);
  const std::size_t behind = static_cast<std::size_t>(
      std::partition_point(ranges_ + first, ranges_ + count_,
                           [end](const ByteRange& other) { return other.offset <= end; }) -
      ranges_);
  if (first == behind) {
    Insert(first, {range.offset, end - range.offset});
    return;
  }
  const std::uint64_t mergedOffset = std::min(range.offset, ranges_[first].offset);
  const std::uint64_t mergedEnd = std::max(end, ranges_[behind - 1].End());
  ranges_[first] = {mergedOffset, mergedEnd - mergedOffset};
  Erase(first + 1, behind);
}

ByteRange RangeList::Take(ByteRange range) {
  std::size_t index = IndexEndingBehind(range.offset);
  const std::uint64_t requestEnd = range.End();
  if (!Holds(index, range.offset)) {
    if (requestEnd == range.offset) return {};
    index = IndexEndingBehind(requestEnd - 1);
    if (!Holds(index, requestEnd - 1)) return {};
    range.offset = ranges_[index].offset;
  }
  const ByteRange whole = ranges_[index];
  const std::uint64_t end = std::min(requestEnd, whole.End());
  const ByteRange cut{range.offset, end - range.offset};
  const ByteRange before{whole.offset, cut.offset - whole.offset};
  const ByteRange after{end, whole.End() - end};
  if (cut.size == 0) return cut;
  if (before.size != 0 && after.size != 0) {
    Insert(index, before);
    ranges_[index + 1] = after;
  } else if (before.size != 0 || after.size != 0) {
    ranges_[index] = before.size != 0 ? before : after;
  } else {
    Erase(index, index + 1);
  }
  return cut;
}

std::size_t RangeList::IndexEndingAtOrBehind(std::uint64_t offset) const {
  const ByteRange* const found = std::partition_point(
      ranges_, ranges_ + count_, [offset](const ByteRange& range) { return range.End() < offset; });
  return static_cast<std::size_t>(found - ranges_);
}

std::size_t RangeList::IndexEndingBehind(std::uint64_t offset) const {
  const ByteRange* const found =
      std::partition_point(ranges_, ranges_ + count_,
                           [offset](const ByteRange& range) { return range.End() <= offset; });
  return static_cast<std::size_t>(found - ranges_);
}

// For the range that IndexEndingBehind has found.
bool RangeList::Holds(std::size_t index, std::uint64_t offset) const {
  return index < count_ && ranges_[index].offset <= offset;
}

void RangeList::Insert(std::size_t index, ByteRange range) {
  if (count_ >= most_) throw std::length_error("list too long");
  if (count_ == capacity_) {
    const std::size_t capacity = 2 * capacity_;
    std::unique_ptr<ByteRange[]> larger(new ByteRange[capacity]);
    std::copy(ranges_, ranges_ + count_, larger.get());
    outside_ = std::move(larger);
    ranges_ = outside_.get();
    capacity_ = capacity;
  }
  std::move_backward(ranges_ + index, ranges_ + count_, ranges_ + count_ + 1);
  ranges_[index] = range;
  ++count_;
}

void RangeList::Erase(std::size_t from, std::size_t to) {
  std::move(ranges_ + to, ranges_ + count_, ranges_ + from);
  count_ -= to - from;
}

}  // namespace Orvane
