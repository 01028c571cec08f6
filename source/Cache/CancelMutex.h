#pragma once

#include <cstdint>
#include <memory>

#include "MTPrimitives.h"

namespace Orvane {

// Lets one thread at a time cancel or purge; nests. The I/O thread, on which every cancel in the
// process depends, goes on serving the cancels of others while it waits: two cancels never wait for
// each other.
class CancelMutex {
 public:
  CancelMutex();
  ~CancelMutex();

  void Enter();
  void Leave();

  class Lock {
   public:
    explicit Lock(CancelMutex* mutex) : mutex_(mutex) { mutex_->Enter(); }
    ~Lock() { mutex_->Leave(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

   private:
    CancelMutex* const mutex_;
  };

 private:
  const std::unique_ptr<MTSemaphore> free_;
  const std::unique_ptr<MTCritSec> stateLock_;
  bool isOwned_ ORVANE_GUARDED_BY(stateLock_) = false;
  std::int64_t owner_ ORVANE_GUARDED_BY(stateLock_) = 0;  // thread id
  std::uint32_t depth_ ORVANE_GUARDED_BY(stateLock_) = 0;
};

}  // namespace Orvane
