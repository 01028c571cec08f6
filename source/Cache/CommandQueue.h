// Commands in the order of their due times.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "Cache/CommandEntry.h"
#include "Cache/CommandHeap.h"
#include "MTPrimitives.h"

namespace Orvane {

class Command;
class SortedObjectFinder;

// The first in order is the one with the smallest sort key; of equal ones the first to come. Holds
// plain pointers. Any thread may add. Everything else is for one thread at a time, the taker: in a
// processor, whoever holds its section. Finders may run with the lock held, which is a leaf.
//
// | where    | what is there                                          | guarded by |
// |----------|--------------------------------------------------------|------------|
// | arrivals | what was added since the taker took all that was there | the lock   |
// | run      | what the taker took, sorted once; all came before what | the taker  |
// |          | is among the arrivals                                  |            |
//
// The taker takes from the run without the lock until it is told that a command has come that may
// be due before what it knows of. When the run is at its end all arrivals become the next one: by
// an exchange of arrays, so that only adding needs memory.
class CommandQueue {
 public:
  CommandQueue();
  ~CommandQueue();

  // Throws when memory is short, with nothing changed.
  void Add(Command* command);

  // The first or null; it stays.
  Command* GetFirst();
  Command* RemoveFirst();
  // Takes out the first if the finder answers true for it; null otherwise.
  Command* RemoveFirstIf(SortedObjectFinder* finder);
  // Takes out the first for which the finder answers true; null if there is none. Constant time to
  // find it when it is the first of all.
  Command* FindAndRemove(SortedObjectFinder* finder);
  // Takes out all for which the finder answers true, which is asked in order.
  void RemoveAllMatching(SortedObjectFinder* finder);
  // Whether nothing is left. What is being added meanwhile may not count yet.
  bool IsEmpty();
  std::size_t GetCount();

 private:
  enum class Place { kNowhere, kRun, kArrivals };
  static constexpr std::uint64_t kNone = ~std::uint64_t{0};

  Place FindFirst();
  Place LookAtArrivals();
  void NoteArrivals() ORVANE_REQUIRES(lock_);
  Command* RemoveFirstOfRun();
  Command* RemoveArrival(std::size_t place) ORVANE_REQUIRES(lock_);
  bool IsRunAtEnd() const { return next_ == run_.size(); }
  void EndRun();

  const std::unique_ptr<MTCritSec> lock_;
  // 1: something came that is due before all arrivals that the taker knows of.
  const std::unique_ptr<MTAtomicUnsigned32> news_;

  CommandHeap arrivals_ ORVANE_GUARDED_BY(lock_);
  bool isNews_ ORVANE_GUARDED_BY(lock_) = false;  // what news_ is
  // The key of the first arrival that the taker knows of or was told of.
  std::uint64_t announcedKey_ ORVANE_GUARDED_BY(lock_) = kNone;

  // The taker's.
  CommandEntries run_;
  std::size_t next_ = 0;                // before it the run has been taken
  std::uint64_t knownArrival_ = kNone;  // the key of the first, as of the last look
};

}  // namespace Orvane
