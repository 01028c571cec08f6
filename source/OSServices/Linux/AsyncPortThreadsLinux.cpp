#include "OSServices/Linux/AsyncPortThreadsLinux.h"

#include <sys/uio.h>

#include <algorithm>
#include <cerrno>

#include "MTInterface.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/Linux/HostFileLinux.h"
#include "OSServices/Linux/HostResultLinux.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr std::size_t kThreads = 8;
constexpr std::uint32_t kMaxWork = AsyncHandler::kRequestSlots + kThreads;

std::int64_t MoveBytes(const AsyncPort::Transfer& transfer) {
  const int descriptor = static_cast<HostFileLinux*>(transfer.file)->GetDescriptor();
  const HostVector vector = ToHostVector(transfer);
  const auto count = static_cast<int>(vector.count);
  const auto offset = static_cast<off_t>(transfer.offset);
  for (int interruptions = 0;; ++interruptions) {
    const ssize_t moved = transfer.write ? pwritev(descriptor, vector.entries, count, offset)
                                         : preadv(descriptor, vector.entries, count, offset);
    if (moved >= 0) return moved;
    if (errno != EINTR || interruptions == kMaxInterruptions) return -errno;
  }
}

}  // namespace

// What all threads run.
class AsyncPortThreadsLinux::Body : public MTThreadBody {
 public:
  explicit Body(AsyncPortThreadsLinux* port) : port_(port) {}

 protected:
  void ThreadMain(MTThread*) override { port_->RunThread(); }

 private:
  AsyncPortThreadsLinux* const port_;
};

AsyncPortThreadsLinux::AsyncPortThreadsLinux()
    : lock_(NewCritSec(LockClass::kPortQueue)),
      work_(MTInterface::NewSemaphore(kMaxWork, 0)),
      event_(MTInterface::NewSemaphore(1, 0)),
      body_(std::make_unique<Body>(this)) {
  // As many as there are slots: nothing is allocated while transfers run.
  waiting_.reserve(AsyncHandler::kRequestSlots);
  done_.reserve(AsyncHandler::kRequestSlots);
}

AsyncPortThreadsLinux::~AsyncPortThreadsLinux() {
  Detach();
}

bool AsyncPortThreadsLinux::Attach() {
  try {
    threads_.reserve(kThreads);
    while (threads_.size() < kThreads) {
      std::unique_ptr<MTThread> thread(MTInterface::NewThread(
          body_.get(), MTThread::kPriorityAboveNormal, MTThread::kProcessorAny));
      if (!thread) break;
      threads_.push_back(std::move(thread));
    }
  } catch (const char*) {
    // Fewer threads are slower, no more.
  }
  return !threads_.empty();
}

void AsyncPortThreadsLinux::Detach() {
  {
    CritSecLock lock(lock_.get());
    stopping_ = true;
  }
  // Refused only while there are more units than threads, which then end just as well.
  work_->Release(kThreads);
  for (const auto& thread : threads_) thread->Terminate(kWaitForEver);
  threads_.clear();
}

AsyncPort::Started AsyncPortThreadsLinux::Issue(const Transfer& transfer) {
  const Started started = CheckTransfer(transfer);
  if (started != Started::kInFlight) return started;
  {
    CritSecLock lock(lock_.get());
    waiting_.push_back(transfer);
  }
  work_->Release(1);
  return Started::kInFlight;
}

void AsyncPortThreadsLinux::Cancel(std::uint32_t slot, std::uint32_t generation) {
  CritSecLock lock(lock_.get());
  const auto found = std::find_if(waiting_.begin(), waiting_.end(), [&](const Transfer& transfer) {
    return transfer.slot == slot && transfer.generation == generation;
  });
  if (found == waiting_.end()) return;
  waiting_.erase(found);
  done_.push_back({slot, generation, Outcome::kFailed, 0});
}

bool AsyncPortThreadsLinux::Wait(std::uint32_t timeoutMs, Completion* completion) {
  for (;;) {
    if (TakeDone(completion)) return true;
    if (TakeWake()) return false;
    if (!event_->Wait(timeoutMs, 1)) return TakeDone(completion);
  }
}

void AsyncPortThreadsLinux::Wake(Signal) {
  {
    CritSecLock lock(lock_.get());
    woken_ = true;
  }
  event_->Release(1);
}

bool AsyncPortThreadsLinux::IsAtEnd(HostFile* file, std::uint64_t position) {
  return static_cast<HostFileLinux*>(file)->IsAtEnd(position);
}

void AsyncPortThreadsLinux::RunThread() {
  for (;;) {
    work_->Wait(kWaitForEver, 1);
    Transfer transfer;
    bool stopping = false;
    if (TakeTransfer(&transfer, &stopping)) {
      const std::int64_t result = MoveBytes(transfer);
      AddDone({transfer.slot, transfer.generation, OutcomeForHostResult(result, transfer.write),
               result > 0 ? static_cast<std::uint64_t>(result) : 0});
    } else if (stopping) {
      return;
    }
  }
}

// False if there is none: a cancel was faster, or the port is being detached.
bool AsyncPortThreadsLinux::TakeTransfer(Transfer* transfer, bool* stopping) {
  CritSecLock lock(lock_.get());
  *stopping = stopping_;
  if (waiting_.empty()) return false;
  *transfer = waiting_.front();
  waiting_.erase(waiting_.begin());
  return true;
}

void AsyncPortThreadsLinux::AddDone(const Completion& completion) {
  {
    CritSecLock lock(lock_.get());
    done_.push_back(completion);
  }
  event_->Release(1);
}

bool AsyncPortThreadsLinux::TakeDone(Completion* completion) {
  CritSecLock lock(lock_.get());
  if (done_.empty()) return false;
  *completion = done_.front();
  done_.erase(done_.begin());
  return true;
}

bool AsyncPortThreadsLinux::TakeWake() {
  CritSecLock lock(lock_.get());
  const bool woken = woken_;
  woken_ = false;
  return woken;
}

}  // namespace Orvane
