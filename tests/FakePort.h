// A host for the asynchronous I/O handler that does nothing but what a test commands.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "OSServices/AsyncHandler.h"
#include "OSServices/AsyncPort.h"

namespace Orvane {

// A file with nothing behind it.
class FakeFile : public HostFile {
 public:
  FakeFile() = default;

 protected:
  ~FakeFile() override = default;
};

// The test's end of the ports that it makes. Outlives the handler that uses them. Safe from any
// thread: one lock guards everything. The Wait... operations answer false after 20 seconds.
//
// A transfer, once issued, stays in flight until the test completes it (or its cancel does), and is
// known by its place in the order of all issues, from 0. What a port must never see (a second
// transfer of a slot, a call from another thread, runs that change, ...) is noted as a violation.
class FakeHost {
 public:
  struct Issued {
    std::uint32_t slot;
    std::uint32_t generation;
    bool write;
    HostFile* file;
    std::uint64_t offset;
    std::vector<MemoryRun> runs;

    std::uint64_t Bytes() const;
  };

  // What a cancelled transfer does.
  enum class OnCancel { kFails, kSucceeds, kStaysInFlight };

  FakeHost();

  // For the handler. `failures`: how many ports cannot be attached before one can.
  AsyncHandler::PortFactory Factory(int failures = 0);
  int GetPortsMade();

  bool WaitForIssued(std::size_t count);
  Issued GetIssued(std::size_t index);
  std::size_t CountIssued();
  bool WaitForCancels(std::size_t count);
  std::size_t CountCancels();
  // Calls of Wake so far, and how many Waits ended because of one.
  bool WaitForWakes(std::size_t count);
  std::size_t CountWakes();
  bool WaitForEmptyWaits(std::size_t count);
  std::size_t CountEmptyWaits();
  // Until the worker sleeps and nothing is left to wake it: all that happened has been digested.
  bool WaitUntilIdle();

  // Completes a transfer with all its bytes, with some, or otherwise.
  void Complete(std::size_t index);
  void Complete(std::size_t index, std::uint64_t bytes);
  void Complete(std::size_t index, AsyncPort::Outcome outcome);
  // Hands any completion to the worker, right or wrong.
  void Push(const AsyncPort::Completion& completion);
  // As if Wake had been called without a reason.
  void Nudge();

  void SetOnCancel(OnCancel what);
  // What Issue answers for a file; kInFlight unless set.
  void SetIssueAnswer(HostFile* file, AsyncPort::Started answer);
  // The end of a file, if it is to be known without a transfer.
  void SetEnd(HostFile* file, std::uint64_t end);
  // Every transfer completes, and no record of it is kept; `before` runs first, on the worker.
  void CompleteEverything(std::function<void()> before = {});
  // Wait always has a completion: a stale one when there is no other.
  void NeverRunDry(bool endless);

  // Empty if the handler kept to the rules of AsyncPort.
  std::string GetViolations();

 private:
  class Port;

  // Calls of the port, on the worker.
  bool Attach();
  void Detach();
  AsyncPort::Started Issue(const AsyncPort::Transfer& transfer);
  void Cancel(std::uint32_t slot, std::uint32_t generation);
  bool Wait(std::uint32_t timeoutMs, AsyncPort::Completion* completion);
  void Wake();
  bool IsAtEnd(HostFile* file, std::uint64_t position);

  struct InFlight {
    AsyncPort::Transfer transfer;
    std::size_t index;
  };

  void CheckThread(const char* operation);
  void Violation(const std::string& text);
  void CompleteLocked(std::size_t index, AsyncPort::Outcome outcome, std::uint64_t bytes);
  AsyncPort::Completion TakeReady();
  template <typename Condition>
  bool WaitFor(Condition condition);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Issued> issued_;
  std::array<std::optional<InFlight>, AsyncHandler::kRequestSlots> inFlight_;
  std::vector<AsyncPort::Completion> ready_;
  std::map<HostFile*, AsyncPort::Started> issueAnswers_;
  std::map<HostFile*, std::uint64_t> ends_;
  std::function<void()> beforeCompletion_;
  std::string violations_;
  std::int64_t workerID_ = 0;
  std::size_t cancels_ = 0;
  std::size_t wakes_ = 0;
  std::size_t emptyWaits_ = 0;
  OnCancel onCancel_ = OnCancel::kFails;
  int failures_ = 0;
  int portsMade_ = 0;
  bool completeEverything_ = false;
  bool endless_ = false;
  bool woken_ = false;
  bool asleep_ = false;
};

}  // namespace Orvane
