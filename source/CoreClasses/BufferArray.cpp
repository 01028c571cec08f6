#include "BufferArray.h"

#include <algorithm>
#include <new>
#include <stdexcept>

#include "Buffer.h"

namespace Orvane {
namespace {

// As many pointers as the address space can hold.
constexpr std::size_t kMostBuffers = 0x1FFFFFFFFFFFFFFF;

}  // namespace

BufferArray::BufferArray(std::size_t capacity) {
  if (capacity > kMostBuffers) throw std::length_error("vector too long");
  if (capacity > kInlineEntries) Grow(capacity);
}

BufferArray::~BufferArray() {
  for (std::size_t i = 0; i < count_; ++i) {
    entries_[i].buffer->DecRef("source/CoreClasses/BufferList", "Orvane::BufferArray::~BufferArray",
                               33);
  }
}

bool BufferArray::Contains(Buffer* buffer) const {
  if (index_) return index_->Find(buffer) != PointerIndex::kNone;
  return std::any_of(entries_, entries_ + count_,
                     [buffer](const Entry& entry) { return entry.buffer == buffer; });
}

std::size_t BufferArray::IndexAtOffset(std::size_t offset) const {
  const Entry* const found =
      std::upper_bound(entries_, entries_ + count_, offset,
                       [](std::size_t wanted, const Entry& entry) { return wanted < entry.end; });
  return static_cast<std::size_t>(found - entries_);
}

void BufferArray::Append(Buffer* buffer, std::size_t size) {
  if (count_ == capacity_) Grow(2 * capacity_);
  if (count_ >= kMostWithoutIndex) AddToIndex(buffer);
  const std::size_t end = End() + size;
  if (end < size) endsAscend_ = false;
  entries_[count_++] = {buffer, end};
}

void BufferArray::Grow(std::size_t capacity) {
  if (capacity > kMostBuffers / 2) throw std::bad_alloc();
  std::unique_ptr<Entry[]> grown(new Entry[capacity]);
  std::copy_n(entries_, count_, grown.get());
  allocatedEntries_ = std::move(grown);
  entries_ = allocatedEntries_.get();
  capacity_ = capacity;
}

void BufferArray::AddToIndex(Buffer* buffer) {
  if (!index_) {
    auto index = std::make_unique<PointerIndex>();
    index->Reserve(count_ + 1);
    for (std::size_t i = 0; i < count_; ++i) index->Insert(entries_[i].buffer, i);
    index_ = std::move(index);
  }
  index_->Reserve(count_ + 1);
  index_->Insert(buffer, count_);
}

}  // namespace Orvane
