#include "Cache/CommandHeap.h"

#include <algorithm>

#include "Cache/Command.h"

namespace Orvane {

void CommandHeap::Add(Command* command) {
  Add(command, command->GetSortKey());
}

void CommandHeap::Add(Command* command, std::uint64_t key) {
  entries_.push_back({key, lastNumber_ + 1, command});
  ++lastNumber_;
}

void CommandHeap::PutBack(Command* command, std::uint64_t* number) {
  if (*number == 0) {
    Add(command);
    *number = lastNumber_;
  } else {
    entries_.push_back({command->GetSortKey(), *number, command});
  }
}

const CommandEntry* CommandHeap::GetFirst() {
  Settle();
  return entries_.empty() ? nullptr : entries_.data();
}

Command* CommandHeap::RemoveFirst() {
  return entries_.empty() ? nullptr : RemoveAt(0);
}

Command* CommandHeap::FindAndRemove(SortedObjectFinder* finder) {
  const std::size_t place = Find(finder);
  return place == kNowhere ? nullptr : RemoveAt(place);
}

void CommandHeap::RemoveAllMatching(SortedObjectFinder* finder) {
  std::erase_if(*GetSorted(),
                [finder](const CommandEntry& entry) { return finder->Check(entry.command); });
  ReleaseRoomIfEmpty(&entries_);
}

std::size_t CommandHeap::Find(SortedObjectFinder* finder, const CommandEntry* limit) {
  Settle();
  std::size_t found = kNowhere;
  for (std::size_t place = 0; place < entries_.size(); ++place) {
    const CommandEntry& entry = entries_[place];
    if (limit && !entry.IsBefore(*limit)) {
      // Nor is anything below the very first.
      if (place == 0) break;
      continue;
    }
    if (!finder->Check(entry.command)) continue;
    found = place;
    if (place == 0) break;
    limit = &entry;
  }
  return found;
}

Command* CommandHeap::RemoveAt(std::size_t place) {
  Settle();
  Command* const command = entries_[place].command;
  const CommandEntry last = entries_.back();
  entries_.pop_back();
  settled_ = entries_.size();
  if (place < entries_.size()) {
    const bool goesUp = place > 0 && last.IsBefore(entries_[(place - 1) / kChildren]);
    if (goesUp) {
      MoveUp(place, last);
    } else {
      MoveDown(place, last);
    }
  } else {
    ReleaseRoomIfEmpty(&entries_);
  }
  return command;
}

CommandEntries* CommandHeap::GetSorted() {
  SortCommandEntries(&entries_);
  settled_ = 0;  // it is a heap, too, but the caller may take some out
  return &entries_;
}

void CommandHeap::TakeAll(CommandEntries* entries) {
  entries_.swap(*entries);
  settled_ = 0;
}

void CommandHeap::Settle() {
  for (; settled_ < entries_.size(); ++settled_) MoveUp(settled_, entries_[settled_]);
}

// Puts the entry in at `place`, which is free, or above it.
void CommandHeap::MoveUp(std::size_t place, CommandEntry entry) {
  while (place > 0) {
    const std::size_t parent = (place - 1) / kChildren;
    if (!entry.IsBefore(entries_[parent])) break;
    entries_[place] = entries_[parent];
    place = parent;
  }
  entries_[place] = entry;
}

// Puts the entry in at `place`, which is free, or below it.
void CommandHeap::MoveDown(std::size_t place, CommandEntry entry) {
  for (;;) {
    const std::size_t first = kChildren * place + 1;
    const std::size_t end = std::min(first + kChildren, entries_.size());
    if (first >= end) break;
    std::size_t best = first;
    for (std::size_t child = first + 1; child < end; ++child) {
      if (entries_[child].IsBefore(entries_[best])) best = child;
    }
    if (!entries_[best].IsBefore(entry)) break;
    entries_[place] = entries_[best];
    place = best;
  }
  entries_[place] = entry;
}

}  // namespace Orvane
