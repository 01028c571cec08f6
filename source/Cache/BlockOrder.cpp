#include "Cache/BlockOrder.h"

#include <algorithm>
#include <tuple>

#include "Cache/CacheBlock.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kMicroPerMilli = 1000;
// Fewer levels than with two, and the children of one entry lie side by side.
constexpr std::size_t kChildren = 4;

}  // namespace

void BlockOrder::Reserve(std::size_t blocks) {
  if (blocks > heap_.capacity()) heap_.reserve(std::max(blocks, 2 * heap_.capacity()));
}

void BlockOrder::Put(CacheBlock* block, std::uint64_t stamp, std::uint64_t setAt) {
  TakeOut(block);
  if (stamp == 0 && setAt == 0) {
    block->orderPlace_ = Place::kEmpty;
    Append(&empty_, block);
  } else if (stamp == setAt / kMicroPerMilli && setAt >= latestUse_) {
    block->orderPlace_ = Place::kUsed;
    block->orderAt_ = latestUse_ = setAt;
    Append(&used_, block);
  } else {
    block->orderPlace_ = Place::kOther;
    PutIntoHeap({stamp, setAt, turns_++, block});
  }
}

void BlockOrder::TakeOut(CacheBlock* block) {
  if (block->orderPlace_ == Place::kEmpty) Unlink(&empty_, block);
  if (block->orderPlace_ == Place::kUsed) Unlink(&used_, block);
  if (block->orderPlace_ == Place::kOther) TakeOutOfHeap(static_cast<std::size_t>(block->orderAt_));
  block->orderPlace_ = Place::kNone;
}

CacheBlock* BlockOrder::GetFirst() const {
  if (empty_.first) return empty_.first;
  if (heap_.empty()) return used_.first;
  if (!used_.first) return heap_.front().block;
  // A block that came to the heap with the time of use of one in the queue came later.
  const std::uint64_t use = used_.first->orderAt_;
  const Entry& entry = heap_.front();
  const bool isHeapFirst =
      std::make_tuple(entry.stamp, entry.setAt) < std::make_tuple(use / kMicroPerMilli, use);
  return isHeapFirst ? entry.block : used_.first;
}

void BlockOrder::Append(Queue* queue, CacheBlock* block) {
  block->orderPrevious_ = queue->last;
  block->orderNext_ = nullptr;
  (queue->last ? queue->last->orderNext_ : queue->first) = block;
  queue->last = block;
}

void BlockOrder::Unlink(Queue* queue, CacheBlock* block) {
  CacheBlock* const previous = block->orderPrevious_;
  CacheBlock* const next = block->orderNext_;
  (previous ? previous->orderNext_ : queue->first) = next;
  (next ? next->orderPrevious_ : queue->last) = previous;
}

bool BlockOrder::IsBefore(const Entry& a, const Entry& b) {
  return std::tie(a.stamp, a.setAt, a.turn) < std::tie(b.stamp, b.setAt, b.turn);
}

void BlockOrder::PutIntoHeap(const Entry& entry) {
  heap_.push_back(entry);  // has room
  MoveUp(heap_.size() - 1, entry);
}

void BlockOrder::TakeOutOfHeap(std::size_t place) {
  const Entry last = heap_.back();
  heap_.pop_back();
  if (place == heap_.size()) return;
  if (place > 0 && IsBefore(last, heap_[(place - 1) / kChildren])) {
    MoveUp(place, last);
  } else {
    MoveDown(place, last);
  }
}

// Into the place or further to the front.
void BlockOrder::MoveUp(std::size_t place, const Entry& entry) {
  while (place > 0) {
    const std::size_t parent = (place - 1) / kChildren;
    if (!IsBefore(entry, heap_[parent])) break;
    SetEntry(place, heap_[parent]);
    place = parent;
  }
  SetEntry(place, entry);
}

// Into the place or further to the back.
void BlockOrder::MoveDown(std::size_t place, const Entry& entry) {
  for (;;) {
    const std::size_t begin = kChildren * place + 1;
    if (begin >= heap_.size()) break;
    std::size_t first = begin;
    const std::size_t end = std::min(begin + kChildren, heap_.size());
    for (std::size_t child = begin + 1; child < end; ++child) {
      if (IsBefore(heap_[child], heap_[first])) first = child;
    }
    if (!IsBefore(heap_[first], entry)) break;
    SetEntry(place, heap_[first]);
    place = first;
  }
  SetEntry(place, entry);
}

void BlockOrder::SetEntry(std::size_t place, const Entry& entry) {
  heap_[place] = entry;
  entry.block->orderAt_ = place;
}

}  // namespace Orvane
