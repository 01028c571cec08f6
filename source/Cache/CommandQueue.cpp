#include "Cache/CommandQueue.h"

#include <algorithm>

#include "Cache/Command.h"
#include "CoreClasses/Prefetch.h"
#include "MTInterface.h"
#include "OSServices/AtomicValue.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

// A command is fetched from memory while so many before it run: they were made in another order.
constexpr std::size_t kFetchedAhead = 8;

// Goes over sorted entries and closes the gaps that those leave which are taken out.
class Sieve {
 public:
  Sieve(CommandEntries* entries, std::size_t first)
      : entries_(entries), read_(first), written_(first) {}
  ~Sieve() {
    entries_->resize(written_);
    ReleaseRoomIfEmpty(entries_);
  }
  Sieve(const Sieve&) = delete;
  Sieve& operator=(const Sieve&) = delete;

  bool IsAtEnd() const { return read_ == entries_->size(); }
  const CommandEntry& Get() const { return (*entries_)[read_]; }
  void Step(bool takesOut) {
    if (!takesOut) (*entries_)[written_++] = Get();
    ++read_;
  }

 private:
  CommandEntries* const entries_;
  std::size_t read_;
  std::size_t written_;
};

}  // namespace

CommandQueue::CommandQueue()
    : lock_(NewCritSec(LockClass::kCommandQueue)), news_(MTInterface::NewAtomicUnsigned32(0)) {}

CommandQueue::~CommandQueue() = default;

void CommandQueue::Add(Command* command) {
  const std::uint64_t key = command->GetSortKey();
  CritSecLock lock(lock_.get());
  arrivals_.Add(command, key);
  if (key >= announcedKey_) return;
  announcedKey_ = key;
  if (isNews_) return;
  isNews_ = true;
  AtomicExchange(news_.get(), 1);
}

Command* CommandQueue::GetFirst() {
  switch (FindFirst()) {
    case Place::kRun:
      return run_[next_].command;
    case Place::kArrivals: {
      CritSecLock lock(lock_.get());
      return arrivals_.GetFirst()->command;
    }
    default:
      return nullptr;
  }
}

Command* CommandQueue::RemoveFirst() {
  switch (FindFirst()) {
    case Place::kRun:
      return RemoveFirstOfRun();
    case Place::kArrivals: {
      CritSecLock lock(lock_.get());
      return RemoveArrival(0);
    }
    default:
      return nullptr;
  }
}

Command* CommandQueue::RemoveFirstIf(SortedObjectFinder* finder) {
  switch (FindFirst()) {
    case Place::kRun:
      return finder->Check(run_[next_].command) ? RemoveFirstOfRun() : nullptr;
    case Place::kArrivals: {
      CritSecLock lock(lock_.get());
      return finder->Check(arrivals_.GetFirst()->command) ? RemoveArrival(0) : nullptr;
    }
    default:
      return nullptr;
  }
}

Command* CommandQueue::FindAndRemove(SortedObjectFinder* finder) {
  if (Command* const first = RemoveFirstIf(finder)) return first;
  if (IsEmpty()) return nullptr;
  const auto inRun =
      std::find_if(run_.begin() + static_cast<std::ptrdiff_t>(next_), run_.end(),
                   [finder](const CommandEntry& entry) { return finder->Check(entry.command); });
  CritSecLock lock(lock_.get());
  const std::size_t arrival = arrivals_.Find(finder, inRun == run_.end() ? nullptr : &*inRun);
  if (arrival != CommandHeap::kNowhere) return RemoveArrival(arrival);
  if (inRun == run_.end()) return nullptr;
  Command* const command = inRun->command;
  run_.erase(inRun);
  if (IsRunAtEnd()) EndRun();
  return command;
}

void CommandQueue::RemoveAllMatching(SortedObjectFinder* finder) {
  CritSecLock lock(lock_.get());
  {
    Sieve run(&run_, next_);
    Sieve arrivals(arrivals_.GetSorted(), 0);
    while (!run.IsAtEnd() || !arrivals.IsAtEnd()) {
      const bool isInRun =
          arrivals.IsAtEnd() || (!run.IsAtEnd() && run.Get().IsBefore(arrivals.Get()));
      Sieve& next = isInRun ? run : arrivals;
      next.Step(finder->Check(next.Get().command));
    }
  }
  if (IsRunAtEnd()) EndRun();
  NoteArrivals();
}

bool CommandQueue::IsEmpty() {
  return IsRunAtEnd() && knownArrival_ == kNone && news_->Get() == 0;
}

std::size_t CommandQueue::GetCount() {
  CritSecLock lock(lock_.get());
  return run_.size() - next_ + arrivals_.GetCount();
}

// As far as the taker knows or was told.
CommandQueue::Place CommandQueue::FindFirst() {
  if (news_->Get() != 0) return LookAtArrivals();
  if (IsRunAtEnd()) return knownArrival_ == kNone ? Place::kNowhere : LookAtArrivals();
  return run_[next_].key <= knownArrival_ ? Place::kRun : Place::kArrivals;
}

CommandQueue::Place CommandQueue::LookAtArrivals() {
  const bool startsRun = IsRunAtEnd();
  {
    CritSecLock lock(lock_.get());
    if (startsRun) arrivals_.TakeAll(&run_);
    NoteArrivals();
  }
  // Without the lock: those who add do not wait for it.
  if (startsRun) SortCommandEntries(&run_);
  if (IsRunAtEnd()) return Place::kNowhere;
  return run_[next_].key <= knownArrival_ ? Place::kRun : Place::kArrivals;
}

void CommandQueue::NoteArrivals() {
  const CommandEntry* const first = arrivals_.GetFirst();
  knownArrival_ = first ? first->key : kNone;
  announcedKey_ = knownArrival_;
  if (!isNews_) return;
  isNews_ = false;
  AtomicExchange(news_.get(), 0);
}

Command* CommandQueue::RemoveFirstOfRun() {
  Command* const command = run_[next_++].command;
  if (IsRunAtEnd()) {
    EndRun();
  } else if (run_.size() - next_ > kFetchedAhead) {
    Prefetch(run_[next_ + kFetchedAhead].command, sizeof(Command));
  }
  return command;
}

Command* CommandQueue::RemoveArrival(std::size_t place) {
  Command* const command = arrivals_.RemoveAt(place);
  NoteArrivals();
  return command;
}

void CommandQueue::EndRun() {
  run_.clear();
  next_ = 0;
  ReleaseRoomIfEmpty(&run_);
}

}  // namespace Orvane
