// The I/O port over overlapped I/O.
#pragma once

#include <array>
#include <atomic>

#include "OSServices/AsyncHandler.h"
#include "OSServices/AsyncPort.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {

// One event per slot, which its transfer signals, and three for the signals of other threads: all
// that one wait of the host takes. Transfers are started, given up and collected by the worker
// thread alone, the one that CancelIo acts on. Differences from the other host: a transfer is on
// its way when Issue returns; there it waits for the next Wait.
class AsyncPortWin : public AsyncPort {
 public:
  AsyncPortWin();
  ~AsyncPortWin() override;

  // Makes the events.
  bool Attach() override;
  void Detach() override;
  Started Issue(const Transfer& transfer) override;
  void Cancel(std::uint32_t slot, std::uint32_t generation) override;
  bool Wait(std::uint32_t timeoutMs, Completion* completion) override;
  void Wake(Signal signal) override;
  bool IsAtEnd(HostFile* file, std::uint64_t position) override;

  // How transfers were issued so far, of all ports; for tests.
  struct Counts {
    std::uint64_t plain;      // ReadFile, WriteFile
    std::uint64_t scattered;  // ReadFileScatter, WriteFileGather
  };
  static Counts GetCounts();

 private:
  // What is known of a slot's transfer.
  struct InFlight {
    OVERLAPPED overlapped;
    HANDLE file;
    std::uint32_t generation;
    bool write;
    bool active;  // the host has it
  };
  static constexpr std::size_t kSignals = 3;
  static constexpr std::size_t kHandles = AsyncHandler::kRequestSlots + kSignals;
  static_assert(kHandles == MAXIMUM_WAIT_OBJECTS);

  bool Start(const Transfer& transfer, InFlight* known);
  bool TakeSlot(std::uint32_t slot, Completion* completion);

  // The worker's, but for SetEvent.
  std::array<HANDLE, AsyncHandler::kRequestSlots> requestEvents_{};
  std::array<HANDLE, kSignals> signalEvents_{};  // by Signal
  std::array<InFlight, AsyncHandler::kRequestSlots> inFlight_{};
  // Where the next wait begins to look: the host answers with the first of those signalled, and the
  // last ones are to have their turn.
  std::size_t first_ = 0;

  // Atomic: any thread. Whether the event of kWork is signalled, or about to be.
  std::atomic<bool> wakePending_{false};
};

}  // namespace Orvane
