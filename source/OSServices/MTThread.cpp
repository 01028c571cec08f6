#include <memory>

#include "MTInterface.h"
#include "OSServices/AtomicValue.h"

namespace Orvane {

MTThread::MTThread(MTThreadBody* body, MTPriority, std::uint64_t) : body_(body) {
  std::unique_ptr<MTSemaphore> done(MTInterface::NewSemaphore(1, 0));
  std::unique_ptr<MTAtomicUnsigned32> terminating(MTInterface::NewAtomicUnsigned32(0));
  bodySet_ = MTInterface::NewAtomicUnsigned32(body ? 1 : 0);
  terminating_ = terminating.release();
  doneSemaphore_ = done.release();
}

MTThread::~MTThread() {
  StopForDestruction();
  delete bodySet_;
  delete terminating_;
  delete doneSemaphore_;
}

bool MTThread::Terminate(std::uint32_t timeoutMs) {
  if (!GetBody()) return false;
  AtomicExchange(terminating_, 1);
  body_->TerminateBody();
  if (!doneSemaphore_->Wait(timeoutMs, 1)) return false;
  // Given back, so that a second Terminate that waits at this moment ends as well.
  doneSemaphore_->Release(1);
  AtomicExchange(terminating_, 0);
  AtomicExchange(bodySet_, 0);
  return true;
}

bool MTThread::IsTerminating() {
  return terminating_->Get() != 0;
}

void MTThread::Run() {
  if (body_) {
    try {
      body_->ThreadMain(this);
    } catch (...) {
      MTInterface::DebugString("Unhandled Exception Running Thread\n");
    }
  }
  doneSemaphore_->Release(1);
}

MTThreadBody* MTThread::GetBody() {
  return bodySet_->Get() ? body_ : nullptr;
}

void MTThread::ForgetBody() {
  AtomicExchange(bodySet_, 0);
}

bool MTThread::StopForDestruction() {
  constexpr std::uint32_t kDestructionTimeoutMs = 10000;
  if (!stoppedForDestruction_) {
    stoppedForDestruction_ = true;
    if (GetBody()) MTThread::Terminate(kDestructionTimeoutMs);
  }
  return !GetBody();
}

}  // namespace Orvane
