// Commands in the order of their due times.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "MTPrimitives.h"

namespace Orvane {

class Command;
class SortedObjectFinder;

// The first in order is the one with the smallest sort key; of equal ones the first to come. Holds
// plain pointers. Safe from any thread; finders run with the lock held, which is a leaf.
//
// A heap in one array rather than a tree of nodes: hundreds of thousands of commands are taken out
// from the front, and a descent through scattered nodes would wait for memory at every step.
class CommandQueue {
 public:
  CommandQueue();
  ~CommandQueue();

  // Throws when memory is short, with nothing changed.
  void Add(Command* command);
  // The first or null; it stays.
  Command* GetFirst();
  Command* RemoveFirst();
  // Takes out the first for which the finder answers true; null if there is none. Constant time to
  // find it when it is the first of all.
  Command* FindAndRemove(SortedObjectFinder* finder);
  // Takes out all for which the finder answers true, which is asked in order.
  void RemoveAllMatching(SortedObjectFinder* finder);
  std::size_t GetCount();

 private:
  struct Entry {
    std::uint64_t key;
    std::uint64_t number;  // of the addition
    Command* command;

    bool IsBefore(const Entry& other) const {
      return key != other.key ? key < other.key : number < other.number;
    }
  };
  static constexpr std::size_t kChildren = 4;  // of a place: they lie in two cache lines

  Command* RemoveAt(std::size_t place) ORVANE_REQUIRES(lock_);
  void MoveUp(std::size_t place, Entry entry) ORVANE_REQUIRES(lock_);
  void MoveDown(std::size_t place, Entry entry) ORVANE_REQUIRES(lock_);

  const std::unique_ptr<MTCritSec> lock_;
  std::vector<Entry> heap_ ORVANE_GUARDED_BY(lock_);
  std::uint64_t lastNumber_ ORVANE_GUARDED_BY(lock_) = 0;
};

}  // namespace Orvane
