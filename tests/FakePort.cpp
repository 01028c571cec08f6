#include "FakePort.h"

#include <chrono>
#include <cstring>

namespace Orvane {
namespace {

constexpr std::chrono::seconds kLongEnough{20};
constexpr AsyncPort::Completion kStale{AsyncHandler::kRequestSlots, 0, AsyncPort::Outcome::kMoved,
                                       1};

std::uint64_t BytesOf(const MemoryRun* runs, std::size_t count) {
  std::uint64_t bytes = 0;
  for (std::size_t i = 0; i < count; ++i) bytes += runs[i].length;
  return bytes;
}

bool AreSame(const std::vector<MemoryRun>& runs, const AsyncPort::Transfer& transfer) {
  return runs.size() == transfer.runCount &&
         std::memcmp(runs.data(), transfer.runs, runs.size() * sizeof(MemoryRun)) == 0;
}

}  // namespace

// Passes everything on to the test's end.
class FakeHost::Port : public AsyncPort {
 public:
  explicit Port(FakeHost* host) : host_(host) {}

  bool Attach() override { return host_->Attach(); }
  void Detach() override { host_->Detach(); }
  Started Issue(const Transfer& transfer) override { return host_->Issue(transfer); }
  void Cancel(std::uint32_t slot, std::uint32_t generation) override {
    host_->Cancel(slot, generation);
  }
  bool Wait(std::uint32_t timeoutMs, Completion* completion) override {
    return host_->Wait(timeoutMs, completion);
  }
  void Wake(Signal) override { host_->Wake(); }
  bool IsAtEnd(HostFile* file, std::uint64_t position) override {
    return host_->IsAtEnd(file, position);
  }

 private:
  FakeHost* const host_;
};

std::uint64_t FakeHost::Issued::Bytes() const {
  return BytesOf(runs.data(), runs.size());
}

FakeHost::FakeHost() {
  ready_.reserve(1024);
}

AsyncHandler::PortFactory FakeHost::Factory(int failures) {
  failures_ = failures;
  return [this](int attempt) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (attempt != portsMade_++) Violation("attempts out of order");
    return std::make_unique<Port>(this);
  };
}

int FakeHost::GetPortsMade() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return portsMade_;
}

template <typename Condition>
bool FakeHost::WaitFor(Condition condition) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, kLongEnough, condition);
}

bool FakeHost::WaitForIssued(std::size_t count) {
  return WaitFor([&] { return issued_.size() >= count; });
}

FakeHost::Issued FakeHost::GetIssued(std::size_t index) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return issued_.at(index);
}

std::size_t FakeHost::CountIssued() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return issued_.size();
}

bool FakeHost::WaitForCancels(std::size_t count) {
  return WaitFor([&] { return cancels_ >= count; });
}

std::size_t FakeHost::CountCancels() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return cancels_;
}

bool FakeHost::WaitForWakes(std::size_t count) {
  return WaitFor([&] { return wakes_ >= count; });
}

std::size_t FakeHost::CountWakes() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return wakes_;
}

bool FakeHost::WaitForEmptyWaits(std::size_t count) {
  return WaitFor([&] { return emptyWaits_ >= count; });
}

std::size_t FakeHost::CountEmptyWaits() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return emptyWaits_;
}

bool FakeHost::WaitUntilIdle() {
  return WaitFor([&] { return asleep_ && ready_.empty() && !woken_; });
}

void FakeHost::Complete(std::size_t index) {
  const std::lock_guard<std::mutex> lock(mutex_);
  CompleteLocked(index, AsyncPort::Outcome::kMoved, issued_.at(index).Bytes());
}

void FakeHost::Complete(std::size_t index, std::uint64_t bytes) {
  const std::lock_guard<std::mutex> lock(mutex_);
  CompleteLocked(index, AsyncPort::Outcome::kMoved, bytes);
}

void FakeHost::Complete(std::size_t index, AsyncPort::Outcome outcome) {
  const std::lock_guard<std::mutex> lock(mutex_);
  CompleteLocked(index, outcome, 0);
}

void FakeHost::Push(const AsyncPort::Completion& completion) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ready_.push_back(completion);
  changed_.notify_all();
}

void FakeHost::Nudge() {
  const std::lock_guard<std::mutex> lock(mutex_);
  woken_ = true;
  changed_.notify_all();
}

void FakeHost::SetOnCancel(OnCancel what) {
  const std::lock_guard<std::mutex> lock(mutex_);
  onCancel_ = what;
}

void FakeHost::SetIssueAnswer(HostFile* file, AsyncPort::Started answer) {
  const std::lock_guard<std::mutex> lock(mutex_);
  issueAnswers_[file] = answer;
}

void FakeHost::SetEnd(HostFile* file, std::uint64_t end) {
  const std::lock_guard<std::mutex> lock(mutex_);
  ends_[file] = end;
}

void FakeHost::CompleteEverything(std::function<void()> before) {
  const std::lock_guard<std::mutex> lock(mutex_);
  beforeCompletion_ = std::move(before);
  completeEverything_ = true;
}

void FakeHost::NeverRunDry(bool endless) {
  const std::lock_guard<std::mutex> lock(mutex_);
  endless_ = endless;
  changed_.notify_all();
}

std::string FakeHost::GetViolations() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return violations_;
}

bool FakeHost::Attach() {
  const std::lock_guard<std::mutex> lock(mutex_);
  workerID_ = MTInterface::GetCurrentThreadID();
  return failures_-- <= 0;
}

void FakeHost::Detach() {
  const std::lock_guard<std::mutex> lock(mutex_);
  CheckThread("Detach");
  for (const auto& transfer : inFlight_) {
    if (transfer) Violation("detached with a transfer in flight");
  }
}

AsyncPort::Started FakeHost::Issue(const AsyncPort::Transfer& transfer) {
  const std::lock_guard<std::mutex> lock(mutex_);
  CheckThread("Issue");
  if (transfer.slot >= AsyncHandler::kRequestSlots) {
    Violation("no such slot");
    return AsyncPort::Started::kFailed;
  }
  std::optional<InFlight>& place = inFlight_[transfer.slot];
  if (place) Violation("a second transfer of a slot");
  if (transfer.runCount == 0) Violation("nothing to move");
  if (completeEverything_) {
    ready_.push_back({transfer.slot, transfer.generation, AsyncPort::Outcome::kMoved,
                      BytesOf(transfer.runs, transfer.runCount)});
    return AsyncPort::Started::kInFlight;
  }
  issued_.push_back({transfer.slot,
                     transfer.generation,
                     transfer.write,
                     transfer.file,
                     transfer.offset,
                     {transfer.runs, transfer.runs + transfer.runCount}});
  changed_.notify_all();
  const auto answer = issueAnswers_.find(transfer.file);
  if (answer != issueAnswers_.end() && answer->second != AsyncPort::Started::kInFlight) {
    return answer->second;
  }
  place = {transfer, issued_.size() - 1};
  return AsyncPort::Started::kInFlight;
}

void FakeHost::Cancel(std::uint32_t slot, std::uint32_t generation) {
  const std::lock_guard<std::mutex> lock(mutex_);
  CheckThread("Cancel");
  ++cancels_;
  changed_.notify_all();
  const std::optional<InFlight>& place = inFlight_.at(slot);
  if (!place) return;  // completed, but not collected yet
  if (place->transfer.generation != generation) {
    Violation("a cancel of another generation");
    return;
  }
  const std::size_t index = place->index;
  if (onCancel_ == OnCancel::kFails) CompleteLocked(index, AsyncPort::Outcome::kFailed, 0);
  if (onCancel_ == OnCancel::kSucceeds) {
    CompleteLocked(index, AsyncPort::Outcome::kMoved, issued_[index].Bytes());
  }
}

bool FakeHost::Wait(std::uint32_t timeoutMs, AsyncPort::Completion* completion) {
  std::unique_lock<std::mutex> lock(mutex_);
  CheckThread("Wait");
  if (timeoutMs == AsyncPort::kWaitForEver) {
    asleep_ = true;
    changed_.notify_all();
    changed_.wait(lock, [&] { return !ready_.empty() || woken_ || endless_; });
    asleep_ = false;
  } else if (timeoutMs != 0) {
    Violation("a wait with a time-out");  // the handler has no use for one, nor has this port
  }
  if (!ready_.empty()) {
    *completion = TakeReady();
    if (beforeCompletion_) {
      lock.unlock();
      beforeCompletion_();
    }
    return true;
  }
  if (endless_) {
    *completion = kStale;
    return true;
  }
  if (woken_) ++emptyWaits_;
  woken_ = false;
  changed_.notify_all();
  return false;
}

void FakeHost::Wake() {
  const std::lock_guard<std::mutex> lock(mutex_);
  woken_ = true;
  ++wakes_;
  changed_.notify_all();
}

bool FakeHost::IsAtEnd(HostFile* file, std::uint64_t position) {
  const std::lock_guard<std::mutex> lock(mutex_);
  CheckThread("IsAtEnd");
  const auto end = ends_.find(file);
  return end != ends_.end() && position >= end->second;
}

void FakeHost::CheckThread(const char* operation) {
  if (MTInterface::GetCurrentThreadID() != workerID_) {
    Violation(std::string(operation) + " from another thread");
  }
}

void FakeHost::Violation(const std::string& text) {
  violations_ += text + "; ";
}

void FakeHost::CompleteLocked(std::size_t index, AsyncPort::Outcome outcome, std::uint64_t bytes) {
  const Issued& issued = issued_.at(index);
  std::optional<InFlight>& place = inFlight_[issued.slot];
  if (!place || place->index != index) {
    Violation("the test completed a transfer twice");
    return;
  }
  if (!AreSame(issued.runs, place->transfer)) Violation("the runs changed during a transfer");
  place.reset();
  ready_.push_back({issued.slot, issued.generation, outcome, bytes});
  changed_.notify_all();
}

AsyncPort::Completion FakeHost::TakeReady() {
  const AsyncPort::Completion completion = ready_.front();
  ready_.erase(ready_.begin());
  return completion;
}

}  // namespace Orvane
