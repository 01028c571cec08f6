// The growable array behind a BufferList.
#pragma once

#include <cstddef>
#include <memory>

#include "PointerIndex.h"

namespace Orvane {

class Buffer;

// Buffers in order, each at most once, with the byte offset at which each one ends. Holds one
// reference on every buffer and releases them, first to last, at destruction. The first two entries
// need no allocation, and up to 16 are searched without an index.
class BufferArray {
 public:
  struct Entry {
    Buffer* buffer;
    std::size_t end;  // offset of the first byte behind it
  };

  // Throws std::length_error or std::bad_alloc.
  explicit BufferArray(std::size_t capacity);
  ~BufferArray();
  BufferArray(const BufferArray&) = delete;
  BufferArray& operator=(const BufferArray&) = delete;

  std::size_t Count() const { return count_; }
  const Entry& At(std::size_t index) const { return entries_[index]; }
  bool Contains(Buffer* buffer) const;
  // Offset of the first byte behind the last buffer, modulo the width of the type.
  std::size_t End() const { return count_ == 0 ? 0 : entries_[count_ - 1].end; }
  // The first buffer that ends behind `offset`. REQUIRES: EndsAscend(), offset < End().
  std::size_t IndexAtOffset(std::size_t offset) const;
  // False once the sum of the sizes has overflowed.
  bool EndsAscend() const { return endsAscend_; }

  // Takes over a reference. REQUIRES: not null, not in the array. Throws std::bad_alloc, with
  // nothing changed.
  void Append(Buffer* buffer, std::size_t size);

 private:
  static constexpr std::size_t kInlineEntries = 2;
  static constexpr std::size_t kMostWithoutIndex = 16;

  void Grow(std::size_t capacity);
  void AddToIndex(Buffer* buffer);

  Entry inlineEntries_[kInlineEntries];
  std::unique_ptr<Entry[]> allocatedEntries_;
  Entry* entries_ = inlineEntries_;
  std::size_t count_ = 0;
  std::size_t capacity_ = kInlineEntries;
  bool endsAscend_ = true;
  std::unique_ptr<PointerIndex> index_;  // from kMostWithoutIndex + 1 buffers on
};

}  // namespace Orvane
