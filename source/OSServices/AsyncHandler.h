// The one I/O thread of the process: accepts requests, issues them to the host, reports them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

#include "FileSource.h"
#include "MTInterface.h"
#include "OSServices/AsyncPort.h"
#include "OSServices/HostFile.h"
#include "OSServices/ScatterGatherManager.h"

namespace Orvane {

// Host-neutral; all that differs between hosts is behind AsyncPort. One instance per process, made
// by the host's file system interface and never destroyed by the library. Owns the port, the worker
// thread and 61 request slots, which are made once and reused: accepting, issuing and reporting a
// request allocates nothing.
//
// States of a slot:
//
// | state     | where it shows            | meaning                              | left by       |
// |-----------|---------------------------|--------------------------------------|---------------|
// | free      | freeSlots_                | nobody uses it                       | Submit        |
// | claimed   | in neither set            | a submitter locks the list's buffers | its queueing  |
// | queued    | activeSlots_, queue_      | waits to be issued                   | issue, cancel |
// | issued    | activeSlots_, slot.issued | the host has the buffers             | completion    |
// | collected | + slot.collected          | cancelled, the host has let go       | its report    |
//
// A slot whose request is refused goes from claimed back to free.
// A claimed slot belongs to its submitter, an active one to the worker thread. The sets and the
// queue change under slotLock_; a slot is filled and queued in one section. Every issue gives the
// slot a new generation, which its completion must carry: any other completion is stale and
// ignored.
//
// Reports. A request is retired before it is reported: its buffers are unlocked, its list is no
// longer used, its slot is free. Then, with no lock held, the callback runs on the worker thread,
// and after it the list, the file and the callback are released. An exception that escapes a
// callback is logged.
//
// Cancelling. The worker asks the host to give up each transfer and collects its completion before
// it reports: whoever sees the report may free or reuse the memory. From another thread Cancel
// waits until that is done for all, while the worker goes on serving other requests; inside a
// callback the worker waits in place. So every operation here may be called from a callback.
//
// Locks: cancelLock_ (one cancel at a time) before slotLock_ (leaf: nothing is called under it but
// atomic counters).
class AsyncHandler {
 public:
  static constexpr std::size_t kRequestSlots = 61;
  enum Direction : std::uint32_t { kRead = 0, kWrite = 1 };
  // Makes a port on the worker thread; called again, with the next attempt number from 0, when that
  // port cannot be attached. Null ends the attempts.
  using PortFactory = std::function<std::unique_ptr<AsyncPort>(int attempt)>;

  // Starts the worker and waits until its port is attached or none could be.
  explicit AsyncHandler(PortFactory makePort);
  // Fails what is queued, cancels what is in flight, ends the worker.
  virtual ~AsyncHandler();

  // Any thread. kResultPending when accepted: the report follows exactly once. Otherwise nothing is
  // kept: kResultBusy without a free slot; kResultError for a null list or buffers that are not
  // whole pages; kResultOutOfRange for a range that passes 2^64; kResultNotSupported while the file
  // is being closed or no worker runs.
  FileSource::Result_t Submit(Direction direction, HostFile* file, BufferList* list,
                              std::uint64_t offset, std::uint32_t timeoutMs,
                              FileSource::ResultCallbackBufferList* callback);
  // Any thread. Reports every outstanding request of the file with kResultFailed before it returns.
  void Cancel(HostFile* file);
  // Any thread. From now on Submit refuses requests for the file.
  void BeginClose(HostFile* file);

  // False when the worker could not be started, has ended, or is missing after a fork.
  bool IsRunning();
  // True in the child of a fork: its requests are the parent's, and any lock may be held for ever.
  bool IsAbandoned();
  // Called in the child of a fork, where the worker does not exist: nothing waits for it any more.
  void AbandonAfterFork();

  // Slots in use; a snapshot.
  std::size_t GetNumberOfSlotsInUse();

 private:
  // The submitter's until it is queued, the worker's from then on.
  struct Slot {
    bool issued = false;
    bool cancelling = false;  // will be reported with cancelResult, whatever its completion says
    bool collected = false;   // cancelling, and the host has let go of the buffers
    FileSource::Result_t cancelResult = FileSource::kResultFailed;
    std::uint32_t generation = 0;
    std::uint32_t deadlineMs = 0;
    FileSource::ResultCallbackBufferList* callback = nullptr;  // one reference, or null
    BufferList* list = nullptr;                                // the reference is the manager's
    HostFile* file = nullptr;                                  // one reference
    std::uint64_t startOffset = 0;                             // bytes in the file
    std::uint64_t totalBytes = 0;
    std::uint64_t bytesTransferred = 0;  // leading bytes of the list that are done
    std::uint64_t issuedFrom = 0;        // where in the list the current transfer began
    bool cutsAnywhere = false;           // transfers need not start on a page boundary after all
    Direction direction = kRead;
    ScatterGatherManager manager;
  };

  // What a submitter puts into his slot.
  struct Request {
    Direction direction;
    HostFile* file;
    BufferList* list;
    std::uint64_t offset;
    std::uint64_t totalBytes;
    std::uint32_t deadlineMs;
    FileSource::ResultCallbackBufferList* callback;
  };

  // Slot numbers, first in, first out. A slot is in it at most once, so it never overflows.
  class SlotQueue {
   public:
    bool IsEmpty() const { return count_ == 0; }
    void PushBack(std::uint32_t slot);
    std::uint32_t PopFront();
    // False if it is not in the queue.
    bool Remove(std::uint32_t slot);

   private:
    std::array<std::uint32_t, kRequestSlots> entries_{};
    std::size_t first_ = 0;
    std::size_t count_ = 0;
  };

  class Worker;
  using SlotSet = std::uint64_t;  // bit k: slot k
  static_assert(kRequestSlots < 64, "a set of slots is one word");
  static constexpr SlotSet kAllSlots = (SlotSet{1} << kRequestSlots) - 1;
  static constexpr std::uint32_t kNoSlot = 0xFFFFFFFF;
  enum State : std::uint32_t { kNotRunning, kRunning, kAbandoned };  // values of state_
  enum Control : std::uint32_t { kStop = 1, kCancel = 2 };           // bits of control_

  // Any thread (AsyncHandler.cpp).
  std::uint32_t ClaimSlot();
  void ReleaseClaim(std::uint32_t index);
  bool QueueSlot(std::uint32_t index, const Request& request);
  void RaiseControl(std::uint32_t bit);
  void WakeWorker(AsyncPort::Signal signal);
  bool TakeControl(std::uint32_t bit);
  bool IsOnWorker() const;
  static void SetWorkerOfThisThread(const AsyncHandler* handler);

  // The worker's thread only (AsyncHandlerWorker.cpp).
  void WorkerMain();
  bool AttachPort();
  void RunUntilStopped();
  void WorkerLoop();
  HostFile* GetFileToCancel();
  void BeginServingCancel();
  void EndServingCancel();
  void ServeCancelsWhileWaiting();
  void Shutdown();
  void IssuePass(bool expireAll);
  bool PopQueued(std::uint32_t* index);
  void IssueSlot(std::uint32_t index);
  bool NextCompletion(AsyncPort::Completion* completion);
  void KeepForLater(const AsyncPort::Completion& completion);
  bool IsCurrent(const AsyncPort::Completion& completion) const;
  void OnCompletion(const AsyncPort::Completion& completion);
  void ContinueTransfer(std::uint32_t index);
  void IssueRest(std::uint32_t index, std::uint64_t from);
  bool AddProgress(Slot& slot, std::uint64_t bytes);
  void CancelOnWorker(HostFile* file);
  SlotSet StartCancel(const HostFile* file, FileSource::Result_t result);
  SlotSet MarkForCancel(const HostFile* file, FileSource::Result_t result);
  void Collect(SlotSet victims);
  void CollectReady(SlotSet victims);
  void ReportCollected(const HostFile* file);
  void RetireAndReport(std::uint32_t index, FileSource::Result_t result, std::uint64_t bytes);
  static FileSource::Result_t EndOfDataResult(const Slot& slot);

  // Set at construction.
  const PortFactory makePort_;
  const std::unique_ptr<MTSemaphore> started_;
  const std::unique_ptr<MTSemaphore> cancelDone_;
  const std::unique_ptr<MTAtomicUnsigned32> state_;
  const std::unique_ptr<MTAtomicUnsigned32> control_;
  const std::unique_ptr<MTCritSec> cancelLock_;  // lets one cancel request run at a time
  const std::unique_ptr<MTCritSec> slotLock_;
  std::unique_ptr<AsyncPort> port_;  // made by the worker before started_ is released

  // Of the cancel that waits for cancelDone_.
  HostFile* fileToCancel_ ORVANE_GUARDED_BY(slotLock_) = nullptr;
  SlotSet freeSlots_ ORVANE_GUARDED_BY(slotLock_) = kAllSlots;
  SlotSet activeSlots_ ORVANE_GUARDED_BY(slotLock_) = 0;
  SlotQueue queue_ ORVANE_GUARDED_BY(slotLock_);

  // See Slot.
  std::array<Slot, kRequestSlots> slots_;

  // The worker's: completions that are known but not yet looked at, because the host failed at once
  // or because a cancel met them while it waited for its own.
  SlotQueue ready_;
  bool portsTurn_ = false;

  // The worker's: the cancel that another thread waits for, and what of it is still unreported.
  bool servingCancel_ = false;
  SlotSet awaited_ = 0;
  std::array<AsyncPort::Completion, kRequestSlots> readyCompletions_{};

  std::unique_ptr<Worker> body_;
  std::unique_ptr<MTThread> thread_;  // null if it could not be started
};

}  // namespace Orvane
