#include "Cache/CommandQueue.h"

#include <algorithm>

#include "Cache/Command.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

// An array that once held many more is given back when it is empty.
constexpr std::size_t kRoomKept = 1024;

}  // namespace

CommandQueue::CommandQueue() : lock_(NewCritSec(LockClass::kCommandQueue)) {}

CommandQueue::~CommandQueue() = default;

void CommandQueue::Add(Command* command) {
  CritSecLock lock(lock_.get());
  const Entry entry{command->GetSortKey(), lastNumber_ + 1, command};
  heap_.push_back(entry);
  ++lastNumber_;
  MoveUp(heap_.size() - 1, entry);
}

Command* CommandQueue::GetFirst() {
  CritSecLock lock(lock_.get());
  return heap_.empty() ? nullptr : heap_.front().command;
}

Command* CommandQueue::RemoveFirst() {
  CritSecLock lock(lock_.get());
  return heap_.empty() ? nullptr : RemoveAt(0);
}

Command* CommandQueue::FindAndRemove(SortedObjectFinder* finder) {
  CritSecLock lock(lock_.get());
  if (heap_.empty()) return nullptr;
  if (finder->Check(heap_.front().command)) return RemoveAt(0);
  const std::size_t none = heap_.size();
  std::size_t found = none;
  for (std::size_t place = 1; place < heap_.size(); ++place) {
    const bool isBetter = found == none || heap_[place].IsBefore(heap_[found]);
    if (isBetter && finder->Check(heap_[place].command)) found = place;
  }
  return found == none ? nullptr : RemoveAt(found);
}

void CommandQueue::RemoveAllMatching(SortedObjectFinder* finder) {
  CritSecLock lock(lock_.get());
  // What is sorted is a heap, too, and stays one when some are left out.
  std::sort(heap_.begin(), heap_.end(),
            [](const Entry& a, const Entry& b) { return a.IsBefore(b); });
  std::erase_if(heap_, [finder](const Entry& entry) { return finder->Check(entry.command); });
}

std::size_t CommandQueue::GetCount() {
  CritSecLock lock(lock_.get());
  return heap_.size();
}

Command* CommandQueue::RemoveAt(std::size_t place) {
  Command* const command = heap_[place].command;
  const Entry last = heap_.back();
  heap_.pop_back();
  if (place < heap_.size()) {
    const bool goesUp = place > 0 && last.IsBefore(heap_[(place - 1) / kChildren]);
    if (goesUp) {
      MoveUp(place, last);
    } else {
      MoveDown(place, last);
    }
  } else if (heap_.empty() && heap_.capacity() > kRoomKept) {
    std::vector<Entry>().swap(heap_);
  }
  return command;
}

// Puts the entry in at `place`, which is free, or above it.
void CommandQueue::MoveUp(std::size_t place, Entry entry) {
  while (place > 0) {
    const std::size_t parent = (place - 1) / kChildren;
    if (!entry.IsBefore(heap_[parent])) break;
    heap_[place] = heap_[parent];
    place = parent;
  }
  heap_[place] = entry;
}

// Puts the entry in at `place`, which is free, or below it.
void CommandQueue::MoveDown(std::size_t place, Entry entry) {
  for (;;) {
    const std::size_t first = kChildren * place + 1;
    const std::size_t end = std::min(first + kChildren, heap_.size());
    if (first >= end) break;
    std::size_t best = first;
    for (std::size_t child = first + 1; child < end; ++child) {
      if (heap_[child].IsBefore(heap_[best])) best = child;
    }
    if (!heap_[best].IsBefore(entry)) break;
    heap_[place] = heap_[best];
    place = best;
  }
  heap_[place] = entry;
}

}  // namespace Orvane
