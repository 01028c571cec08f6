// The I/O port for kernels and containers without io_uring: a few threads that block.
#pragma once

#include <memory>
#include <vector>

#include "OSServices/AsyncHandler.h"
#include "OSServices/AsyncPort.h"

namespace Orvane {

// Issue puts a transfer into a queue, from which the threads take them in order; a transfer that is
// done goes into a second queue, from which Wait takes them. lock_ guards both. A cancel takes a
// transfer out of the first queue; one that a thread is busy with runs to its end. Differences from
// the other host: it has no such port: all its files can be read while others wait.
class AsyncPortThreadsLinux : public AsyncPort {
 public:
  AsyncPortThreadsLinux();
  ~AsyncPortThreadsLinux() override;

  bool Attach() override;
  void Detach() override;
  Started Issue(const Transfer& transfer) override;
  void Cancel(std::uint32_t slot, std::uint32_t generation) override;
  bool Wait(std::uint32_t timeoutMs, Completion* completion) override;
  void Wake(Signal signal) override;
  bool IsAtEnd(HostFile* file, std::uint64_t position) override;

 private:
  class Body;

  void RunThread();
  bool TakeTransfer(Transfer* transfer, bool* stopping);
  void AddDone(const Completion& completion);
  bool TakeDone(Completion* completion);
  bool TakeWake();

  const std::unique_ptr<MTCritSec> lock_;
  const std::unique_ptr<MTSemaphore> work_;   // at least one unit per waiting transfer
  const std::unique_ptr<MTSemaphore> event_;  // maximum 1: something is done, or Wake was called
  std::vector<Transfer> waiting_ ORVANE_GUARDED_BY(lock_);
  std::vector<Completion> done_ ORVANE_GUARDED_BY(lock_);
  bool woken_ ORVANE_GUARDED_BY(lock_) = false;
  bool stopping_ ORVANE_GUARDED_BY(lock_) = false;

  // The worker's.
  std::unique_ptr<Body> body_;
  std::vector<std::unique_ptr<MTThread>> threads_;
};

}  // namespace Orvane
