#pragma once

#include "MTPrimitives.h"

namespace Orvane {

// Holds a critical section for the length of a block.
class ORVANE_SCOPED_CAPABILITY CritSecLock {
 public:
  explicit CritSecLock(MTCritSec* section) ORVANE_ACQUIRE(section) : section_(section) {
    section_->Enter();
  }
  ~CritSecLock() ORVANE_RELEASE() { section_->Leave(); }
  CritSecLock(const CritSecLock&) = delete;
  CritSecLock& operator=(const CritSecLock&) = delete;

 private:
  MTCritSec* const section_;
};

}  // namespace Orvane
