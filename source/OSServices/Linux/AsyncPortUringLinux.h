// The I/O port over io_uring.
#pragma once

#include <liburing.h>

#include <array>
#include <atomic>

#include "OSServices/AsyncHandler.h"
#include "OSServices/AsyncPort.h"

namespace Orvane {

// One ring, made and used by the worker thread alone. Issue and Cancel only queue entries; Wait
// submits them all with the same system call that waits. Other threads touch wakePending_ and
// sleeping_, and write to the event descriptor only when the worker sleeps: the ring always holds a
// read of it. Differences from the other host: there a transfer is on its way when Issue returns,
// and the end of each is an event of its own.
class AsyncPortUringLinux : public AsyncPort {
 public:
  AsyncPortUringLinux();
  ~AsyncPortUringLinux() override;

  // Makes the ring and moves eight bytes through it: what a container or an old kernel forbids is
  // found out here.
  bool Attach() override;
  void Detach() override;
  Started Issue(const Transfer& transfer) override;
  void Cancel(std::uint32_t slot, std::uint32_t generation) override;
  bool Wait(std::uint32_t timeoutMs, Completion* completion) override;
  void Wake(Signal signal) override;
  bool IsAtEnd(HostFile* file, std::uint64_t position) override;

 private:
  // What is known of a slot's transfer in flight, to start it once more if it was interrupted.
  struct InFlight {
    Transfer transfer;
    int interruptions;
    bool cancelled;
  };

  bool MakeRing();
  bool TryTransfer();
  void QueueWakeRead();
  void QueueTransfer(const Transfer& transfer);
  io_uring_sqe* GetEntry();
  // True if the entry ended a transfer.
  bool TakeEntry(const io_uring_cqe& entry, Completion* completion);
  // False if the time ran out.
  bool SubmitAndSleep(std::uint32_t timeoutMs);

  // The worker's.
  io_uring ring_{};
  bool ringMade_ = false;
  unsigned queuedEntries_ = 0;  // not submitted yet
  int wakeEvent_ = -1;
  std::uint64_t wakeValue_ = 0;  // where the ring reads the event to
  std::array<InFlight, AsyncHandler::kRequestSlots> inFlight_{};

  // Atomic: any thread.
  std::atomic<bool> wakePending_{false};
  std::atomic<bool> sleeping_{false};
};

}  // namespace Orvane
