#pragma once

#include "SharedObject.h"

namespace Orvane {

// Holds the modify lock of a shared object for the length of a block.
class ModifyLock {
 public:
  explicit ModifyLock(SharedObject* object) ORVANE_NO_THREAD_SAFETY_ANALYSIS : object_(object) {
    object_->BeginThreadSafeModify();
  }
  ~ModifyLock() ORVANE_NO_THREAD_SAFETY_ANALYSIS { object_->FinishThreadSafeModify(); }
  ModifyLock(const ModifyLock&) = delete;
  ModifyLock& operator=(const ModifyLock&) = delete;

 private:
  SharedObject* const object_;
};

}  // namespace Orvane
