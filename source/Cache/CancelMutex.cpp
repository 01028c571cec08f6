#include "Cache/CancelMutex.h"

#include "MTInterface.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LibraryThread.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kWithoutLimit = 0xFFFFFFFF;
constexpr std::uint32_t kServeEveryMs = 1;

}  // namespace

CancelMutex::CancelMutex()
    : free_(MTInterface::NewSemaphore(1, 1)), stateLock_(NewCritSec(LockClass::kCacheObject)) {}

CancelMutex::~CancelMutex() = default;

void CancelMutex::Enter() {
  const std::int64_t self = MTInterface::GetCurrentThreadID();
  {
    CritSecLock lock(stateLock_.get());
    if (isOwned_ && owner_ == self) {
      ++depth_;
      return;
    }
  }
  if (WaitServant* const servant = WaitServant::OfThisThread()) {
    while (!free_->Wait(kServeEveryMs, 1)) servant->ServeWhileWaiting();
  } else {
    free_->Wait(kWithoutLimit, 1);
  }
  CritSecLock lock(stateLock_.get());
  isOwned_ = true;
  owner_ = self;
  depth_ = 1;
}

void CancelMutex::Leave() {
  {
    CritSecLock lock(stateLock_.get());
    if (--depth_ > 0) return;
    isOwned_ = false;
  }
  free_->Release(1);
}

}  // namespace Orvane
