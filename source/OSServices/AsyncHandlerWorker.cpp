#include "OSServices/AsyncHandlerWorker.h"

#include <algorithm>
#include <bit>
#include <new>

#include "BufferList.h"
#include "OSServices/AtomicValue.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LibraryThread.h"
#include "OSServices/ReportScope.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/OSServices/AsyncHandlerWorker";

// How a request ended, with the references that were held for it.
struct Ending {
  FileSource::ResultCallbackBufferList* callback;  // may be null
  BufferList* list;
  HostFile* file;
  FileSource::Result_t result;
  std::uint64_t offset;
  std::uint64_t bytes;

  void Report() const {
    constexpr const char* kFunction = "Orvane::AsyncHandler::RetireAndReport";
    ReportScope scope;
    if (callback) {
      const ReportScope::CallersCode callersCode;
      try {
        callback->Callback(result, offset, list, bytes);
      } catch (...) {
        MTInterface::DebugString("Unhandled Exception In File Callback\n");
      }
    }
    list->DecRef(kFile, kFunction, __LINE__);
    file->DecRef(kFile, kFunction, __LINE__);
    if (callback) callback->DecRef(kFile, kFunction, __LINE__);
  }
};

class DeferredEnding : public DeferredReport {
 public:
  explicit DeferredEnding(const Ending& ending) : ending_(ending) {}
  void FinishReport() override {
    const Ending ending = ending_;
    delete this;
    ending.Report();
  }

 private:
  const Ending ending_;
};

// Times are compared by their difference: the millisecond clock wraps.
bool IsDue(std::uint32_t nowMs, std::uint32_t deadlineMs) {
  return static_cast<std::int32_t>(nowMs - deadlineMs) >= 0;
}

}  // namespace

void AsyncHandler::WorkerMain() {
  SetWorkerOfThisThread(this);
  WaitServant::OfThisThread() = body_.get();
  LibraryThreadMark mark;
  if (AttachPort()) {
    AtomicExchange(state_.get(), kRunning);
    started_->Release(1);
    RunUntilStopped();
    Shutdown();
    port_->Detach();
  } else {
    started_->Release(1);
  }
  WaitServant::OfThisThread() = nullptr;
  SetWorkerOfThisThread(nullptr);
}

bool AsyncHandler::AttachPort() {
  try {
    for (int attempt = 0;; ++attempt) {
      port_ = makePort_(attempt);
      if (!port_) return false;
      if (port_->Attach()) return true;
    }
  } catch (...) {
    // Memory or another resource is short; whoever waits for the start must hear of it.
    port_.reset();
    return false;
  }
}

// Nothing in there throws but code of the application in a place where none is expected, a
// reference count for instance. The other requests of the process must not suffer for it.
void AsyncHandler::RunUntilStopped() {
  while (!(control_->Get() & kStop)) {
    try {
      WorkerLoop();
    } catch (...) {
      MTInterface::DebugString("Unhandled Exception On The I/O Thread\n");
    }
  }
}

void AsyncHandler::WorkerLoop() {
  for (;;) {
    // Control first: completions that never cease must not keep a cancel or the end waiting.
    if (control_->Get() & kStop) return;
    if (TakeControl(kCancel)) BeginServingCancel();
    EndServingCancel();
    IssuePass(/*expireAll=*/false);
    // A callback in there may have waited for the port and used up the wake-up of a control signal.
    if (control_->Get() != 0 || (servingCancel_ && awaited_ == 0)) continue;
    AsyncPort::Completion completion;
    if (NextCompletion(&completion)) OnCompletion(completion);
  }
}

HostFile* AsyncHandler::GetFileToCancel() {
  CritSecLock lock(slotLock_.get());
  return fileToCancel_;
}

// The requests of other files go on meanwhile: a device that does not let go holds up nobody but
// the threads that cancel.
void AsyncHandler::BeginServingCancel() {
  HostFile* const file = GetFileToCancel();
  servingCancel_ = true;
  awaited_ = StartCancel(file, FileSource::kResultFailed);
  ReportCollected(file);
}

void AsyncHandler::EndServingCancel() {
  if (!servingCancel_ || awaited_ != 0) return;
  servingCancel_ = false;
  cancelDone_->Release(1);
}

// Inside a callback. Does not wait for the host: whoever waits here calls again.
void AsyncHandler::ServeCancelsWhileWaiting() {
  // Reported here and now: the other thread goes on when they have been.
  const ReportScope::CallersCode callersCode;
  if (TakeControl(kCancel)) BeginServingCancel();
  if (servingCancel_) {
    // Whoever was about to report the rest, or to look at what was kept for later, waits here.
    CollectReady(awaited_);
    ReportCollected(GetFileToCancel());
  }
  AsyncPort::Completion completion;
  while (servingCancel_ && awaited_ != 0 && port_->Wait(0, &completion)) {
    if (!IsCurrent(completion)) continue;
    const Slot& slot = slots_[completion.slot];
    if (slot.cancelling) {
      RetireAndReport(completion.slot, slot.cancelResult, 0);
    } else {
      KeepForLater(completion);
    }
  }
  EndServingCancel();
}

void AsyncHandler::Shutdown() {
  {
    CritSecLock lock(slotLock_.get());
    AtomicExchange(state_.get(), kNotRunning);
  }
  IssuePass(/*expireAll=*/true);
  CancelOnWorker(nullptr);
  // Raised under the lock while the worker was running, so seen here at the latest.
  if (TakeControl(kCancel)) servingCancel_ = true;
  EndServingCancel();
}

void AsyncHandler::IssuePass(bool expireAll) {
  std::uint32_t index = 0;
  while (PopQueued(&index)) {
    Slot& slot = slots_[index];
    if (!expireAll && !IsDue(MTInterface::GetCurrentTimeMilli(), slot.deadlineMs)) {
      slot.issuedFrom = 0;
      IssueSlot(index);
      continue;
    }
    // It waited too long: every request of its file fails with it, those in flight as soon as the
    // host has let go. The file is held because its last reference may go with a report.
    HostFile* const file = slot.file;
    SharedObjectAutoRef keepFile(file);
    StartCancel(file, FileSource::kResultError);
    ReportCollected(file);
  }
}

bool AsyncHandler::PopQueued(std::uint32_t* index) {
  CritSecLock lock(slotLock_.get());
  if (queue_.IsEmpty()) return false;
  *index = queue_.PopFront();
  return true;
}

void AsyncHandler::IssueSlot(std::uint32_t index) {
  Slot& slot = slots_[index];
  slot.issued = true;
  ++slot.generation;
  std::size_t runCount = 0;
  const MemoryRun* const runs = slot.manager.GetRuns(&runCount);
  const std::uint64_t page = PhysMemInterface::GetPageSize();
  const std::uint64_t* const segments =
      slot.issuedFrom % page == 0 ? slot.manager.GetSegmentArray(nullptr) + slot.issuedFrom / page
                                  : nullptr;
  const AsyncPort::Started started =
      port_->Issue({index, slot.generation, slot.direction == kWrite, slot.file,
                    slot.startOffset + slot.issuedFrom, runs, runCount, segments,
                    slot.totalBytes - slot.issuedFrom});
  if (started == AsyncPort::Started::kInFlight) return;
  // The host's answer is a completion like any other: reported from the loop, exactly once.
  AsyncPort::Outcome outcome = AsyncPort::Outcome::kFailed;
  if (started == AsyncPort::Started::kEndOfFile) outcome = AsyncPort::Outcome::kEndOfFile;
  if (started == AsyncPort::Started::kRefused) outcome = AsyncPort::Outcome::kRefused;
  KeepForLater({index, slot.generation, outcome, 0});
}

bool AsyncHandler::NextCompletion(AsyncPort::Completion* completion) {
  // Nothing is left in the queue, so no deadline can pass meanwhile: Submit wakes the port.
  if (ready_.IsEmpty()) return port_->Wait(AsyncPort::kWaitForEver, completion);
  // In turns: a file whose transfers fail at once, again and again, must not keep the others
  // waiting.
  portsTurn_ = !portsTurn_;
  if (portsTurn_ && port_->Wait(0, completion)) return true;
  *completion = readyCompletions_[ready_.PopFront()];
  return true;
}

void AsyncHandler::KeepForLater(const AsyncPort::Completion& completion) {
  readyCompletions_[completion.slot] = completion;
  ready_.PushBack(completion.slot);
}

bool AsyncHandler::IsCurrent(const AsyncPort::Completion& completion) const {
  if (completion.slot >= kRequestSlots) return false;
  const Slot& slot = slots_[completion.slot];
  return slot.issued && !slot.collected && slot.generation == completion.generation;
}

void AsyncHandler::OnCompletion(const AsyncPort::Completion& completion) {
  if (!IsCurrent(completion)) return;
  const std::uint32_t index = completion.slot;
  Slot& slot = slots_[index];
  if (slot.cancelling) {
    RetireAndReport(index, slot.cancelResult, 0);
    return;
  }
  FileSource::Result_t result = FileSource::kResultError;
  if (completion.outcome == AsyncPort::Outcome::kEndOfFile) {
    // Of a page that was read before, but is gone now, nothing counts.
    slot.bytesTransferred = std::min(slot.bytesTransferred, slot.issuedFrom);
    result = EndOfDataResult(slot);
  } else if (completion.outcome == AsyncPort::Outcome::kRefused) {
    // Asked for exactly the rest behind a cut page, where the host moves whole blocks only: then
    // the page came short because the data ends there, a file that shrank for instance.
    const bool askedForTheRest = slot.issuedFrom % PhysMemInterface::GetPageSize() != 0;
    if (askedForTheRest && slot.direction == kRead) result = EndOfDataResult(slot);
  } else if (completion.outcome == AsyncPort::Outcome::kMoved) {
    if (!AddProgress(slot, completion.bytes)) {
      // The page that was cut came just as short again: only the host knows whether more follows.
      if (slot.issuedFrom < slot.bytesTransferred) {
        slot.cutsAnywhere = true;
        IssueRest(index, slot.bytesTransferred);
        return;
      }
      // No byte at all: the end of the data; a write has no such thing.
      if (slot.direction == kRead) result = EndOfDataResult(slot);
    } else if (slot.bytesTransferred == slot.totalBytes) {
      result = FileSource::kResultOK;
    } else if (slot.direction == kRead &&
               port_->IsAtEnd(slot.file, slot.startOffset + slot.bytesTransferred)) {
      result = FileSource::kResultPartial;
    } else {
      ContinueTransfer(index);
      return;
    }
  }
  RetireAndReport(index, result, slot.bytesTransferred);
}

// It came short of the end. Unbuffered transfers start on page boundaries, so there the rest begins
// with the page that was cut, unless the host has shown that it cuts pages and goes on inside them.
void AsyncHandler::ContinueTransfer(std::uint32_t index) {
  const Slot& slot = slots_[index];
  const bool wholePages = slot.file->IsUnbuffered() && !slot.cutsAnywhere;
  const std::uint64_t cut = slot.bytesTransferred % PhysMemInterface::GetPageSize();
  IssueRest(index, slot.bytesTransferred - (wholePages ? cut : 0));
}

void AsyncHandler::IssueRest(std::uint32_t index, std::uint64_t from) {
  slots_[index].issuedFrom = from;
  slots_[index].manager.SetProgress(from);
  IssueSlot(index);
}

// False if nothing is gained over what was transferred before. A file that shrank meanwhile gives
// less of the cut page than before: what lies behind is no longer its content.
bool AsyncHandler::AddProgress(Slot& slot, std::uint64_t bytes) {
  const std::uint64_t before = slot.bytesTransferred;
  slot.bytesTransferred = std::min(slot.issuedFrom + bytes, slot.totalBytes);
  return slot.bytesTransferred > before;
}

FileSource::Result_t AsyncHandler::EndOfDataResult(const Slot& slot) {
  return slot.bytesTransferred > 0 ? FileSource::kResultPartial : FileSource::kResultOutOfRange;
}

// From a callback, so in place. Re-entrant: a callback that is run here may cancel again. What an
// outer cancel has marked but not reported yet is reported by an inner one for the same file, so
// that nothing of the file is outstanding when the inner one returns.
void AsyncHandler::CancelOnWorker(HostFile* file) {
  Collect(StartCancel(file, FileSource::kResultFailed));
  ReportCollected(file);
}

// Marks every active request of the file (of all files for null), takes back what was not issued,
// asks the host to give up the rest. Answers all that were marked, now or before.
AsyncHandler::SlotSet AsyncHandler::StartCancel(const HostFile* file, FileSource::Result_t result) {
  const SlotSet victims = MarkForCancel(file, result);
  for (SlotSet rest = victims; rest != 0; rest &= rest - 1) {
    const auto index = static_cast<std::uint32_t>(std::countr_zero(rest));
    Slot& slot = slots_[index];
    if (slot.collected) continue;
    if (ready_.Remove(index)) {
      slot.collected = true;
    } else {
      port_->Cancel(index, slot.generation);
    }
  }
  return victims;
}

AsyncHandler::SlotSet AsyncHandler::MarkForCancel(const HostFile* file,
                                                  FileSource::Result_t result) {
  CritSecLock lock(slotLock_.get());
  SlotSet victims = 0;
  for (SlotSet rest = activeSlots_; rest != 0; rest &= rest - 1) {
    const auto index = static_cast<std::uint32_t>(std::countr_zero(rest));
    Slot& slot = slots_[index];
    if (file && slot.file != file) continue;
    victims |= SlotSet{1} << index;
    if (slot.cancelling) continue;
    slot.cancelling = true;
    slot.cancelResult = result;
    if (!slot.issued) {
      queue_.Remove(index);
      slot.collected = true;
    }
  }
  return victims;
}

// Returns when the host has let go of every buffer of the victims.
void AsyncHandler::Collect(SlotSet victims) {
  SlotSet outstanding = 0;
  for (SlotSet rest = victims; rest != 0; rest &= rest - 1) {
    const auto index = static_cast<std::uint32_t>(std::countr_zero(rest));
    if (!slots_[index].collected) outstanding |= SlotSet{1} << index;
  }
  while (outstanding != 0) {
    AsyncPort::Completion completion;
    if (!port_->Wait(AsyncPort::kWaitForEver, &completion) || !IsCurrent(completion)) continue;
    const SlotSet bit = SlotSet{1} << completion.slot;
    if (outstanding & bit) {
      slots_[completion.slot].collected = true;
      outstanding &= ~bit;
    } else {
      KeepForLater(completion);
    }
  }
}

// Takes back what the host has let go of already.
void AsyncHandler::CollectReady(SlotSet victims) {
  for (SlotSet rest = victims; rest != 0; rest &= rest - 1) {
    const auto index = static_cast<std::uint32_t>(std::countr_zero(rest));
    if (ready_.Remove(index)) slots_[index].collected = true;
  }
}

void AsyncHandler::ReportCollected(const HostFile* file) {
  for (std::uint32_t index = 0; index < kRequestSlots; ++index) {
    const Slot& slot = slots_[index];
    if (slot.collected && (!file || slot.file == file)) {
      RetireAndReport(index, slot.cancelResult, 0);
    }
  }
}

// The slot is free and its buffers are unlocked before the callback runs; the callback runs with no
// lock held, for which it waits where a cache cancels on this thread; a synchronous caller is woken
// only when the last reference has been given back.
void AsyncHandler::RetireAndReport(std::uint32_t index, FileSource::Result_t result,
                                   std::uint64_t bytes) {
  constexpr const char* kFunction = "Orvane::AsyncHandler::RetireAndReport";
  Slot& slot = slots_[index];
  const Ending ending{slot.callback, slot.list, slot.file, result, slot.startOffset, bytes};
  ending.list->AddRef(kFile, kFunction, __LINE__);
  // Outside the lock, because unlocking a buffer is the caller's code; the slot is still ours.
  slot.manager.StopUsingBufferList();
  slot.callback = nullptr;
  slot.list = nullptr;
  slot.file = nullptr;
  slot.issued = slot.collected = slot.cancelling = false;
  awaited_ &= ~(SlotSet{1} << index);
  {
    CritSecLock lock(slotLock_.get());
    activeSlots_ &= ~(SlotSet{1} << index);
    freeSlots_ |= SlotSet{1} << index;
  }

  if (ReportScope::IsOpen()) {
    if (auto* const later = new (std::nothrow) DeferredEnding(ending)) {
      ReportScope::Defer(later);
      return;
    }
  }
  ending.Report();
}

}  // namespace Orvane
