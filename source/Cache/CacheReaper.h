#pragma once

#include <cstdint>
#include <memory>

#include "MTPrimitives.h"

namespace Orvane {

class Cache;

// Destroys caches whose last reference was given up on a thread of the library: such a thread would
// wait for itself. One helper thread per process, started when it is needed first.
class CacheReaper : public MTThreadBody {
 public:
  // Any thread.
  static void Destroy(Cache* cache);
  // Waits until what was handed over is destroyed, and ends the thread; it starts again when it is
  // needed. Not from a callback.
  static void Stop();
  // Forgets its thread and what was handed over, without waiting: they belong to threads that will
  // never run again. The next cache finds it as new.
  static void Abandon();

  void ThreadMain(MTThread* thread) override;

 protected:
  void TerminateBody() override;

 private:
  CacheReaper();
  static CacheReaper& Get();
  void Take(Cache* cache);
  Cache* TakeNext();
  Cache* TakeNextOfStop();
  Cache* TakeNextLocked() ORVANE_REQUIRES(lock_);

  const std::unique_ptr<MTCritSec> lock_;
  std::unique_ptr<MTSemaphore> wake_;                          // with thread_
  std::unique_ptr<MTThread> thread_ ORVANE_GUARDED_BY(lock_);  // null until needed
  Cache* first_ ORVANE_GUARDED_BY(lock_) = nullptr;
  std::uint32_t stops_ ORVANE_GUARDED_BY(lock_) = 0;  // under way; no thread is started meanwhile
};

}  // namespace Orvane
