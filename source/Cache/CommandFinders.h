// What selects commands in the queue of a processor.
#pragma once

#include "Cache/Command.h"

namespace Orvane {

class CommandFinder {
 public:
  virtual ~CommandFinder() = default;
  // `kind` is the command's, 0 for null.
  virtual bool Matches(Command* command, std::uint32_t kind) = 0;

 protected:
  CommandFinder() = default;
};

// The commands that work for a source; null too.
class CacheCommandFinder : public CommandFinder {
 public:
  explicit CacheCommandFinder(const CacheSource* source) : source_(source) {}
  bool Matches(Command* command, std::uint32_t) override {
    return !command || static_cast<CacheCommand*>(command)->GetSource() == source_;
  }

 private:
  const CacheSource* const source_;
};

// The first command of a kind.
class CommandPicker : public SortedObjectFinder {
 public:
  explicit CommandPicker(std::uint32_t kind) : kind_(kind) {}
  bool Check(SortedObject* object) override {
    return static_cast<Command*>(object)->GetKind() == kind_;
  }

 private:
  const std::uint32_t kind_;
};

// Takes what a finder matches (all, without one) out of a queue and finishes it as cancelled, once
// the queue's lock has been left.
class CommandRemover : public SortedObjectFinder {
 public:
  explicit CommandRemover(CommandFinder* finder) : finder_(finder) {}
  bool Check(SortedObject* object) override {
    auto* const command = static_cast<Command*>(object);
    if (finder_ && !finder_->Matches(command, command->GetKind())) return false;
    command->nextRemoved_ = nullptr;
    (last_ ? last_->nextRemoved_ : first_) = command;
    last_ = command;
    return true;
  }
  void FinishRemoved() {
    while (first_) {
      Command* const command = first_;
      first_ = command->nextRemoved_;
      command->Finish(/*cancelled=*/true);
    }
    last_ = nullptr;
  }

 private:
  CommandFinder* const finder_;
  Command* first_ = nullptr;
  Command* last_ = nullptr;
};

}  // namespace Orvane
