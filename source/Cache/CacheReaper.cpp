#include "Cache/CacheReaper.h"

#include "Cache.h"
#include "MTInterface.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LibraryThread.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kWithoutLimit = 0xFFFFFFFF;

}  // namespace

CacheReaper::CacheReaper()
    : lock_(NewCritSec(LockClass::kReaper)), wake_(MTInterface::NewSemaphore(1, 0)) {}

// Never destroyed: a cache may be released while the process ends.
CacheReaper& CacheReaper::Get() {
  static CacheReaper* const reaper = new CacheReaper;
  return *reaper;
}

void CacheReaper::Destroy(Cache* cache) {
  Get().Take(cache);
}

void CacheReaper::Take(Cache* cache) {
  CritSecLock lock(lock_.get());
  cache->nextToReap_ = first_;
  first_ = cache;
  try {
    // Whoever stops it looks again before he is done.
    if (!thread_ && stops_ == 0) {
      thread_.reset(
          MTInterface::NewThread(this, MTThread::kPriorityNormal, MTThread::kProcessorAny));
    }
  } catch (...) {
    // The next one to come tries again.
    MTInterface::DebugString("No Thread To Destroy A Cache\n");
  }
  wake_->Release(1);
}

void CacheReaper::Stop() {
  CacheReaper& reaper = Get();
  std::unique_ptr<MTThread> thread;
  {
    CritSecLock lock(reaper.lock_.get());
    thread.swap(reaper.thread_);
    ++reaper.stops_;
  }
  if (thread) thread->Terminate(kWithoutLimit);
  while (Cache* const cache = reaper.TakeNextOfStop()) delete cache;
}

void CacheReaper::Abandon() {
  CacheReaper& reaper = Get();
  CritSecLock lock(reaper.lock_.get());
  static_cast<void>(reaper.thread_.release());
  reaper.first_ = nullptr;
  reaper.stops_ = 0;
}

void CacheReaper::ThreadMain(MTThread* thread) {
  LibraryThreadMark mark;
  for (;;) {
    while (Cache* const cache = TakeNext()) delete cache;
    if (thread->IsTerminating()) return;
    wake_->Wait(kWithoutLimit, 1);
  }
}

void CacheReaper::TerminateBody() {
  wake_->Release(1);
}

Cache* CacheReaper::TakeNext() {
  CritSecLock lock(lock_.get());
  return TakeNextLocked();
}

// Null ends the stop: what comes from then on finds a thread again.
Cache* CacheReaper::TakeNextOfStop() {
  CritSecLock lock(lock_.get());
  Cache* const cache = TakeNextLocked();
  if (!cache) --stops_;
  return cache;
}

Cache* CacheReaper::TakeNextLocked() {
  Cache* const cache = first_;
  if (cache) first_ = cache->nextToReap_;
  return cache;
}

}  // namespace Orvane
