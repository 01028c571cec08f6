// A queue of commands in order of due time, and the one thread that runs them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "Cache/Command.h"
#include "Cache/CommandFinders.h"
#include "Cache/CommandHeap.h"
#include "Cache/CommandQueue.h"
#include "MTPrimitives.h"
#include "OSServices/LockClass.h"

namespace Orvane {

// Every Add and Wake lets the worker run one pass over the queue. A command that answers false is
// put aside and run again in a later pass. While commands stand aside, and a pass has got no
// further with any command, the worker waits at most a millisecond for the next; otherwise it
// sleeps until it is woken. Of those aside a pass tries the one that is due first, and goes on to
// the next only if it is done: they wait for the same thing, and the first to be due shall have it.
//
// The section is held while a command runs and is finished: whoever holds it (Hold) knows that none
// is running, and that what was finished is among the reports of the cache. They are made after the
// section was left.
class CommandProcessor : public MTThreadBody {
 public:
  // Starts the thread, unless memory is short for the kinds: see IsRunning. Throws what
  // MTInterface::NewThread throws.
  CommandProcessor(const std::uint32_t* kinds, std::size_t kindCount, MTThread::MTPriority priority,
                   LockClass sectionClass);
  // Ends the thread; finishes what is queued as cancelled. Not on the thread itself.
  ~CommandProcessor() override;

  void ThreadMain(MTThread* thread) override;
  // Takes the command over. Null only wakes the worker. Throws when memory is short; then the
  // command is still the caller's.
  virtual void Add(Command* command);
  // Without waking: for several at once, the last of which is followed by Wake.
  void AddQuietly(Command* command);
  // Finishes every queued command that the finder matches, as cancelled.
  virtual void Remove(CommandFinder* finder);
  virtual void RemoveAll();
  virtual void Wake();
  // Wakes the worker if commands stand aside. Cheap otherwise.
  void WakeIfWaiting();
  virtual void Hold() ORVANE_ACQUIRE(section_);
  virtual void Release() ORVANE_RELEASE(section_);

  // Takes the command that would be picked next, if it was not run before and the finder matches
  // it; null otherwise. REQUIRES: called by a command of this processor.
  Command* TakeNext(CommandFinder* finder);
  bool IsRunning() const { return thread_ != nullptr; }
  // Passes so far, in tests.
  std::uint64_t GetPass();

 protected:
  void TerminateBody() override;

 private:
  // What one pass has come to.
  struct Pass {
    std::uint64_t number = 0;  // 0 until its first command is sought
    bool isDrained = false;  // nothing is queued nor aside: whoever adds something wakes the worker
    std::size_t commandsRun = 0;
    bool madeProgress = false;
    bool triesAside = true;
    // What commands have found wanting in this pass.
    std::array<const void*, 8> missing{};
    std::size_t missingCount = 0;
  };
  class OtherWaiter;

  void RunPass(MTThread* thread);
  bool RunNext(MTThread* thread, const std::uint32_t* kind, Pass* pass);
  Command* Pick(const std::uint32_t* kind, const Pass& pass) ORVANE_REQUIRES(section_);
  bool Run(MTThread* thread, Command* command, Pass* pass, bool* cancelled)
      ORVANE_REQUIRES(section_);
  bool PutAside(Command* command) ORVANE_REQUIRES(section_);
  void RemoveMatching(CommandFinder* finder) ORVANE_REQUIRES(section_);
  void NoteAside() ORVANE_REQUIRES(section_);

  // Set at construction.
  const std::unique_ptr<MTSemaphore> wake_;
  const std::unique_ptr<MTCritSec> section_;
  const std::unique_ptr<MTAtomicUnsigned32> asideCount_;  // for those without the section
  std::unique_ptr<std::uint32_t[]> kinds_;
  std::size_t kindCount_;

  CommandQueue queue_;                             // not run yet; taken from in the section
  CommandHeap aside_ ORVANE_GUARDED_BY(section_);  // ran and answered false
  std::uint64_t pass_ ORVANE_GUARDED_BY(section_) = 0;
  bool goesOnAtOnce_ = false;  // the thread's: the last pass got further and left something

  std::unique_ptr<MTThread> thread_;  // last: it uses all of the above
};

// Holds a processor for the length of a block; of null, nothing.
class ORVANE_SCOPED_CAPABILITY ProcessorHold {
 public:
  explicit ProcessorHold(CommandProcessor* processor) ORVANE_NO_THREAD_SAFETY_ANALYSIS
      : processor_(processor) {
    if (processor_) processor_->Hold();
  }
  ~ProcessorHold() ORVANE_RELEASE() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    if (processor_) processor_->Release();
  }
  ProcessorHold(const ProcessorHold&) = delete;
  ProcessorHold& operator=(const ProcessorHold&) = delete;

 private:
  CommandProcessor* const processor_;
};

}  // namespace Orvane
