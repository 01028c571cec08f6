// Commands that come one by one and are taken out from the front.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Cache/CommandEntry.h"

namespace Orvane {

class SortedObjectFinder;

// The first in order is the one with the smallest sort key; of equal ones the first to come. Holds
// plain pointers. Not safe from several threads: whoever has it guards it.
//
// A heap in one array rather than a tree of nodes, which would wait for memory at every step. What
// is added stands behind the heap until somebody asks for the first.
class CommandHeap {
 public:
  static constexpr std::size_t kNowhere = ~std::size_t{0};

  // Throws when memory is short, with nothing changed.
  void Add(Command* command);
  // The same for one whose key is known.
  void Add(Command* command, std::uint64_t key);
  // Back to where it stood among its equals, if *number is that which it got when it was added
  // before; 0: as one that comes, and gets one.
  void PutBack(Command* command, std::uint64_t* number);
  // The first or null; it stays.
  const CommandEntry* GetFirst();
  Command* RemoveFirst();
  // Takes out the first for which the finder answers true; null if there is none.
  Command* FindAndRemove(SortedObjectFinder* finder);
  // Takes out all for which the finder answers true, which is asked in order.
  void RemoveAllMatching(SortedObjectFinder* finder);

  // Where the first stands for which the finder answers true, if it comes before `limit`. Valid
  // until the next change.
  std::size_t Find(SortedObjectFinder* finder, const CommandEntry* limit = nullptr);
  Command* RemoveAt(std::size_t place);
  // All, in order; some may be taken out, the rest has to stay in order.
  CommandEntries* GetSorted();
  // Exchanges everything, in no order, for the room of an empty array.
  void TakeAll(CommandEntries* entries);

  bool IsEmpty() const { return entries_.empty(); }
  std::size_t GetCount() const { return entries_.size(); }

 private:
  static constexpr std::size_t kChildren = 4;  // of a place: they lie in two cache lines

  void Settle();
  void MoveUp(std::size_t place, CommandEntry entry);
  void MoveDown(std::size_t place, CommandEntry entry);

  CommandEntries entries_;
  std::size_t settled_ = 0;  // so many in front are a heap
  std::uint64_t lastNumber_ = 0;
};

}  // namespace Orvane
