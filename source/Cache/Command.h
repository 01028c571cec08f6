// The work of a cache, cut into small objects that wait in the queues of its processors.
#pragma once

#include <cstdint>

#include "CoreClasses/SortedObjectList.h"

namespace Orvane {

class Cache;
class CacheSource;

enum CommandKind : std::uint32_t {
  kCommandRead = 1,
  kCommandDispatchedRead = 2,
  kCommandDispatchedCopy = 3,
  kCommandReserved = 4,  // accepted by the read processor; nothing makes one
};

// Owned by the processor from Add to Finish. Ordered by due time, as soon as possible first.
class Command : public SortedObject {
 public:
  // False: to be run again later.
  virtual bool Execute() = 0;
  // Called once, when the processor is done with the command, which deletes itself. Not called with
  // the queue's lock.
  virtual void Finish(bool cancelled) = 0;
  // The pass of the processor in which it was picked last; 0: none yet.
  virtual std::uint64_t GetPass() { return pass_; }
  virtual void SetPass(std::uint64_t pass) { pass_ = pass; }

  // What the command waits for when it answers false: those with the same wait together.
  virtual const void* GetResource() const { return nullptr; }

  std::uint64_t GetSortKey() override { return sortKey_; }
  CommandKind GetKind() const { return kind_; }
  // Milliseconds on the clock of MTInterface::GetCurrentTimeMilli; 0: as soon as possible.
  std::uint32_t GetDueTime() const { return dueTime_; }

 protected:
  Command(CommandKind kind, std::uint32_t dueTime);
  ~Command() override = default;

 private:
  friend class CommandRemover;
  friend class CommandProcessor;

  const CommandKind kind_;
  const std::uint32_t dueTime_;
  const std::uint64_t sortKey_;  // the due time past the wrap of the clock
  std::uint64_t pass_ = 0;
  std::uint64_t asideNumber_ = 0;  // of the first time that it stood aside; 0: it never did
  Command* nextRemoved_ = nullptr;
};

class CacheCommand : public Command {
 public:
  // What the command works for; compared, never called.
  const CacheSource* GetSource() const { return source_; }

 protected:
  CacheCommand(CommandKind kind, std::uint32_t dueTime, Cache* cache, const CacheSource* source)
      : Command(kind, dueTime), cache_(cache), source_(source) {}

  Cache* const cache_;  // may be null, in tests

 private:
  const CacheSource* const source_;
};

}  // namespace Orvane
