// What the library keeps per thread, all of it in one place.
#pragma once

#include "OSServices/LockClass.h"

namespace Orvane {

class AsyncHandler;
class ReportScope;
class WaitServant;

// A scheduler that runs several threads of the library on one of the host's exchanges the whole of
// it at every switch.
struct ThreadState {
  ReportScope* openScope = nullptr;              // see ReportScope
  ReportScope* suspendedScope = nullptr;         // see ReportScope::CallersCode
  int libraryDepth = 0;                          // see LibraryThreadMark
  WaitServant* servant = nullptr;                // see WaitServant
  const AsyncHandler* handler = nullptr;         // whose worker the thread is
  LockClass classBeingMade = LockClass::kOther;  // see NewCritSec
};

// Of the calling thread.
inline ThreadState& GetThreadState() {
  constinit thread_local ThreadState state;
  return state;
}

}  // namespace Orvane
