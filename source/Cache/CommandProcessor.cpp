#include "Cache/CommandProcessor.h"

#include <algorithm>
#include <new>

#include "MTInterface.h"
#include "OSServices/AtomicValue.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LibraryThread.h"
#include "OSServices/ReportScope.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kWithoutLimit = 0xFFFFFFFF;
// How long a command that stands aside waits for another try when nobody wakes the worker.
constexpr std::uint32_t kTryAgainMs = 1;
// Of those aside the first is tried in each pass. Those that wait for something else are looked for
// in each pass while there are few; among many, which takes as long as there are, less often.
constexpr std::size_t kFewAside = 64;
constexpr std::size_t kMostPassesPerLook = 16;
// A pass ends after so many commands, so that those aside get their turn however many come in.
constexpr std::size_t kCommandsPerPass = 64;

}  // namespace

// A command that was not tried in this pass and waits for nothing that was found wanting in it.
class CommandProcessor::OtherWaiter : public SortedObjectFinder {
 public:
  explicit OtherWaiter(const Pass* pass) : pass_(pass) {}
  bool Check(SortedObject* object) override {
    auto* const command = static_cast<Command*>(object);
    const auto end = pass_->missing.begin() + static_cast<std::ptrdiff_t>(pass_->missingCount);
    return command->GetPass() < pass_->number &&
           std::find(pass_->missing.begin(), end, command->GetResource()) == end;
  }

 private:
  const Pass* const pass_;
};

CommandProcessor::CommandProcessor(const std::uint32_t* kinds, std::size_t kindCount,
                                   MTThread::MTPriority priority, LockClass sectionClass)
    : wake_(MTInterface::NewSemaphore(1, 0)),
      section_(NewCritSec(sectionClass)),
      asideCount_(MTInterface::NewAtomicUnsigned32(0)),
      kinds_(new (std::nothrow) std::uint32_t[kindCount]),
      kindCount_(kindCount) {
  if (!kinds_) return;
  std::copy_n(kinds, kindCount, kinds_.get());
  thread_.reset(MTInterface::NewThread(this, priority, MTThread::kProcessorAny));
}

CommandProcessor::~CommandProcessor() {
  if (thread_) thread_->Terminate(kWithoutLimit);
  RemoveAll();
}

void CommandProcessor::ThreadMain(MTThread* thread) {
  LibraryThreadMark mark;
  while (!thread->IsTerminating()) {
    std::uint32_t timeoutMs = kWithoutLimit;
    if (goesOnAtOnce_) {
      timeoutMs = 0;
    } else if (asideCount_->Get() != 0) {
      timeoutMs = kTryAgainMs;
    }
    wake_->Wait(timeoutMs, 1);
    if (thread->IsTerminating()) return;
    RunPass(thread);
  }
}

void CommandProcessor::Add(Command* command) {
  AddQuietly(command);
  Wake();
}

void CommandProcessor::AddQuietly(Command* command) {
  if (command) queue_.Add(command);
}

void CommandProcessor::Remove(CommandFinder* finder) {
  ReportScope scope;
  CritSecLock lock(section_.get());
  RemoveMatching(finder);
}

void CommandProcessor::RemoveAll() {
  Remove(nullptr);
}

void CommandProcessor::RemoveMatching(CommandFinder* finder) {
  CommandRemover remover(finder);
  queue_.RemoveAllMatching(&remover);
  aside_.RemoveAllMatching(&remover);
  NoteAside();
  remover.FinishRemoved();
}

void CommandProcessor::Wake() {
  wake_->Release(1);
}

void CommandProcessor::WakeIfWaiting() {
  if (asideCount_->Get() != 0) Wake();
}

void CommandProcessor::Hold() {
  section_->Enter();
}

void CommandProcessor::Release() {
  section_->Leave();
}

Command* CommandProcessor::TakeNext(CommandFinder* finder) {
  class Matching : public SortedObjectFinder {
   public:
    explicit Matching(CommandFinder* finder) : finder_(finder) {}
    bool Check(SortedObject* object) override {
      auto* const command = static_cast<Command*>(object);
      return finder_->Matches(command, command->GetKind());
    }

   private:
    CommandFinder* const finder_;
  };
  Matching matching(finder);
  return queue_.RemoveFirstIf(&matching);
}

std::uint64_t CommandProcessor::GetPass() {
  CritSecLock lock(section_.get());
  return pass_;
}

void CommandProcessor::TerminateBody() {
  Wake();
}

void CommandProcessor::RunPass(MTThread* thread) {
  Pass pass;
  if (kindCount_ == 0) {
    RunNext(thread, nullptr, &pass);
  }
  for (std::size_t k = 0; k < kindCount_; ++k) {
    while (pass.commandsRun < kCommandsPerPass && RunNext(thread, &kinds_[k], &pass)) {
    }
  }
  const bool wasCut = pass.commandsRun >= kCommandsPerPass;
  goesOnAtOnce_ = wasCut || (pass.madeProgress && asideCount_->Get() != 0);
}

// False when there is nothing more to run in this pass.
bool CommandProcessor::RunNext(MTThread* thread, const std::uint32_t* kind, Pass* pass) {
  if (pass->isDrained || thread->IsTerminating()) return false;
  // Closes after the section was left and the command is gone.
  ReportScope scope;
  CritSecLock lock(section_.get());
  if (pass->number == 0) pass->number = ++pass_;
  Command* const command = Pick(kind, *pass);
  bool cancelled = false;
  // In the section still: what a command fails here is on its way to its caller when it is left,
  // and a cancel that comes then waits for it.
  if (command && Run(thread, command, pass, &cancelled)) command->Finish(cancelled);
  pass->isDrained = aside_.IsEmpty() && queue_.IsEmpty();
  return command != nullptr;
}

// Those aside come before those of the same due time that came later.
Command* CommandProcessor::Pick(const std::uint32_t* kind, const Pass& pass) {
  const CommandEntry* const aside = pass.triesAside ? aside_.GetFirst() : nullptr;
  if (aside && aside->command->GetPass() < pass.number) {
    const Command* const fresh = queue_.GetFirst();
    if (!fresh || aside->key <= fresh->sortKey_) {
      Command* const command = aside_.RemoveFirst();
      NoteAside();
      return command;
    }
  }
  const std::uint64_t passesPerLook =
      std::clamp<std::size_t>(aside_.GetCount() / kFewAside, 1, kMostPassesPerLook);
  if (!pass.triesAside && pass.number % passesPerLook == 0 &&
      pass.missingCount < pass.missing.size() && aside_.GetCount() > 1) {
    OtherWaiter other(&pass);
    if (Command* const command = aside_.FindAndRemove(&other)) {
      NoteAside();
      return command;
    }
  }
  if (!kind) return queue_.RemoveFirst();
  CommandPicker picker(*kind);
  return queue_.FindAndRemove(&picker);
}

// Whether the command is to be finished; otherwise it has been put aside.
bool CommandProcessor::Run(MTThread* thread, Command* command, Pass* pass, bool* cancelled) {
  command->SetPass(pass->number);
  ++pass->commandsRun;
  *cancelled = true;
  if (thread->IsTerminating()) return true;
  try {
    *cancelled = !command->Execute();
  } catch (...) {
    // The others go on without it.
    MTInterface::DebugString("Unhandled Exception In Cache Command\n");
    pass->madeProgress = true;
    return true;
  }
  if (!*cancelled) {
    pass->madeProgress = true;
    return true;
  }
  pass->triesAside = false;
  if (pass->missingCount < pass->missing.size()) {
    pass->missing[pass->missingCount++] = command->GetResource();
  }
  return thread->IsTerminating() || !PutAside(command);
}

// However often it is tried, it stays in front of its equals that came later.
bool CommandProcessor::PutAside(Command* command) {
  try {
    aside_.PutBack(command, &command->asideNumber_);
  } catch (...) {
    return false;  // memory is short
  }
  NoteAside();
  return true;
}

void CommandProcessor::NoteAside() {
  AtomicExchange(asideCount_.get(), static_cast<std::uint32_t>(aside_.GetCount()));
}

}  // namespace Orvane
