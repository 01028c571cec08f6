#include "OSServices/AsyncHandler.h"

#include <bit>
#include <limits>

#include "BufferList.h"
#include "OSServices/AsyncHandlerWorker.h"
#include "OSServices/AtomicValue.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"
#include "OSServices/ThreadState.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/OSServices/AsyncHandler";

}  // namespace

void AsyncHandler::SlotQueue::PushBack(std::uint32_t slot) {
  entries_[(first_ + count_) % kRequestSlots] = slot;
  ++count_;
}

std::uint32_t AsyncHandler::SlotQueue::PopFront() {
  const std::uint32_t slot = entries_[first_];
  first_ = (first_ + 1) % kRequestSlots;
  --count_;
  return slot;
}

bool AsyncHandler::SlotQueue::Remove(std::uint32_t slot) {
  for (std::size_t k = 0; k < count_; ++k) {
    if (entries_[(first_ + k) % kRequestSlots] != slot) continue;
    for (std::size_t m = k + 1; m < count_; ++m) {
      entries_[(first_ + m - 1) % kRequestSlots] = entries_[(first_ + m) % kRequestSlots];
    }
    --count_;
    return true;
  }
  return false;
}

AsyncHandler::AsyncHandler(PortFactory makePort)
    : makePort_(std::move(makePort)),
      started_(MTInterface::NewSemaphore(1, 0)),
      cancelDone_(MTInterface::NewSemaphore(1, 0)),
      state_(MTInterface::NewAtomicUnsigned32(kNotRunning)),
      control_(MTInterface::NewAtomicUnsigned32(0)),
      cancelLock_(NewCritSec(LockClass::kHandlerCancel)),
      slotLock_(NewCritSec(LockClass::kHandlerSlot)),
      body_(std::make_unique<Worker>(this)) {
  try {
    thread_.reset(MTInterface::NewThread(body_.get(), MTThread::kPriorityTimeCritical,
                                         MTThread::kProcessorAny));
  } catch (const char*) {
    return;  // no worker: every request is refused
  }
  if (!thread_) return;
  started_->Wait(AsyncPort::kWaitForEver, 1);
  if (IsRunning()) return;
  // No port could be attached; the worker has nothing to do and is on its way out.
  thread_->Terminate(AsyncPort::kWaitForEver);
  thread_.reset();
}

AsyncHandler::~AsyncHandler() {
  if (thread_) thread_->Terminate(AsyncPort::kWaitForEver);
}

FileSource::Result_t AsyncHandler::Submit(Direction direction, HostFile* file, BufferList* list,
                                          std::uint64_t offset, std::uint32_t timeoutMs,
                                          FileSource::ResultCallbackBufferList* callback) {
  if (!IsRunning()) return FileSource::kResultNotSupported;
  if (!list) return FileSource::kResultError;
  const std::uint32_t index = ClaimSlot();
  if (index == kNoSlot) return FileSource::kResultBusy;

  ScatterGatherManager& manager = slots_[index].manager;
  FileSource::Result_t result = FileSource::kResultError;
  if (manager.StartUsingBufferList(list)) {
    std::uint64_t totalBytes = 0;
    manager.GetSegmentArray(&totalBytes);
    if (totalBytes - 1 > std::numeric_limits<std::uint64_t>::max() - offset) {
      result = FileSource::kResultOutOfRange;
    } else {
      // From the queueing on the report may come at any moment: its references are taken first.
      file->AddRef(kFile, "Orvane::AsyncHandler::Submit", __LINE__);
      if (callback) callback->AddRef(kFile, "Orvane::AsyncHandler::Submit", __LINE__);
      const std::uint32_t deadlineMs = MTInterface::GetCurrentTimeMilli() + timeoutMs;
      if (QueueSlot(index, {direction, file, list, offset, totalBytes, deadlineMs, callback})) {
        if (!IsOnWorker()) WakeWorker(AsyncPort::Signal::kWork);
        return FileSource::kResultPending;
      }
      if (callback) callback->DecRef(kFile, "Orvane::AsyncHandler::Submit", __LINE__);
      file->DecRef(kFile, "Orvane::AsyncHandler::Submit", __LINE__);
      result = FileSource::kResultNotSupported;
    }
    manager.StopUsingBufferList();
  }
  ReleaseClaim(index);
  return result;
}

void AsyncHandler::Cancel(HostFile* file) {
  // After a fork the requests are the parent's, also in the copy of a thread that was the worker.
  if (IsAbandoned()) return;
  if (IsOnWorker()) {
    CancelOnWorker(file);
    return;
  }
  // Without a worker no slot is active: nothing was accepted, or all of it has been reported.
  if (!IsRunning()) return;
  CritSecLock oneAtATime(cancelLock_.get());
  {
    CritSecLock lock(slotLock_.get());
    if (!IsRunning()) return;
    fileToCancel_ = file;
    RaiseControl(kCancel);
  }
  WakeWorker(AsyncPort::Signal::kCancel);
  cancelDone_->Wait(AsyncPort::kWaitForEver, 1);
}

void AsyncHandler::BeginClose(HostFile* file) {
  if (IsAbandoned()) return;
  CritSecLock lock(slotLock_.get());
  file->closing_ = true;
}

bool AsyncHandler::IsRunning() {
  return state_->Get() == kRunning;
}

bool AsyncHandler::IsAbandoned() {
  return state_->Get() == kAbandoned;
}

void AsyncHandler::AbandonAfterFork() {
  AtomicExchange(state_.get(), kAbandoned);
}

std::size_t AsyncHandler::GetNumberOfSlotsInUse() {
  CritSecLock lock(slotLock_.get());
  return kRequestSlots - static_cast<std::size_t>(std::popcount(freeSlots_));
}

std::uint32_t AsyncHandler::ClaimSlot() {
  CritSecLock lock(slotLock_.get());
  if (freeSlots_ == 0) return kNoSlot;
  const auto index = static_cast<std::uint32_t>(std::countr_zero(freeSlots_));
  freeSlots_ &= freeSlots_ - 1;
  return index;
}

void AsyncHandler::ReleaseClaim(std::uint32_t index) {
  CritSecLock lock(slotLock_.get());
  freeSlots_ |= SlotSet{1} << index;
}

bool AsyncHandler::QueueSlot(std::uint32_t index, const Request& request) {
  CritSecLock lock(slotLock_.get());
  if (!IsRunning() || request.file->closing_) return false;
  Slot& slot = slots_[index];
  slot.deadlineMs = request.deadlineMs;
  slot.callback = request.callback;
  slot.list = request.list;
  slot.file = request.file;
  slot.startOffset = request.offset;
  slot.totalBytes = request.totalBytes;
  slot.bytesTransferred = 0;
  slot.issuedFrom = 0;
  slot.cutsAnywhere = false;
  slot.direction = request.direction;
  activeSlots_ |= SlotSet{1} << index;
  queue_.PushBack(index);
  return true;
}

void AsyncHandler::RaiseControl(std::uint32_t bit) {
  for (;;) {
    const std::uint32_t seen = control_->Get();
    if (control_->CompareAndSwap(seen, seen | bit)) return;
  }
}

void AsyncHandler::WakeWorker(AsyncPort::Signal signal) {
  if (port_) port_->Wake(signal);
}

bool AsyncHandler::TakeControl(std::uint32_t bit) {
  for (;;) {
    const std::uint32_t seen = control_->Get();
    if (!(seen & bit)) return false;
    if (control_->CompareAndSwap(seen, seen & ~bit)) return true;
  }
}

bool AsyncHandler::IsOnWorker() const {
  return GetThreadState().handler == this;
}

void AsyncHandler::SetWorkerOfThisThread(const AsyncHandler* handler) {
  GetThreadState().handler = handler;
}

}  // namespace Orvane
