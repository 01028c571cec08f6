#include "OSServices/LockClass.h"

#include "MTInterface.h"
#include "OSServices/ThreadState.h"

namespace Orvane {
namespace {

// Also puts the class back when the implementation throws.
class Making {
 public:
  explicit Making(LockClass lockClass) : outer_(GetThreadState().classBeingMade) {
    GetThreadState().classBeingMade = lockClass;
  }
  ~Making() { GetThreadState().classBeingMade = outer_; }
  Making(const Making&) = delete;
  Making& operator=(const Making&) = delete;

 private:
  const LockClass outer_;
};

}  // namespace

const char* ToText(LockClass lockClass) {
  switch (lockClass) {
    case LockClass::kCacheCancel:
      return "cache cancel";
    case LockClass::kReadSection:
      return "read section";
    case LockClass::kDispatchedReadSection:
      return "dispatched read section";
    case LockClass::kCopySection:
      return "copy section";
    case LockClass::kBatchTracker:
      return "batch tracker";
    case LockClass::kBatch:
      return "batch";
    case LockClass::kBlockList:
      return "block list";
    case LockClass::kBlock:
      return "block";
    case LockClass::kBlockIndex:
      return "block index";
    case LockClass::kTracker:
      return "tracker";
    case LockClass::kCacheObject:
      return "cache object";
    case LockClass::kCommandQueue:
      return "command queue";
    case LockClass::kPreReadList:
      return "pre-read list";
    case LockClass::kPreReadTracker:
      return "pre-read tracker";
    case LockClass::kStatistics:
      return "statistics";
    case LockClass::kBatchRegistry:
      return "batch registry";
    case LockClass::kReaper:
      return "reaper";
    case LockClass::kSortedList:
      return "sorted list";
    case LockClass::kHandlerCancel:
      return "handler cancel";
    case LockClass::kHandlerSlot:
      return "handler slot";
    case LockClass::kFileState:
      return "file state";
    case LockClass::kPortQueue:
      return "port queue";
    case LockClass::kFactory:
      return "factory";
    case LockClass::kPool:
      return "pool";
    case LockClass::kSharedObjectModify:
      return "shared object modify";
    case LockClass::kOther:
      return "other";
  }
  return "unknown";
}

MTCritSec* NewCritSec(LockClass lockClass) {
  const Making making(lockClass);
  return MTInterface::NewCritSec();
}

LockClass GetLockClassBeingMade() {
  return GetThreadState().classBeingMade;
}

}  // namespace Orvane
