// A thread of the host. The run-time library closes its handle when it ends.
#pragma once

#include <cstdint>

#include "MTPrimitives.h"
#include "OSServices/Win/HostHeadersWin.h"

namespace Orvane {

// Made by MTInterfaceImpWin::NewThread, owned by its caller. The I/O thread is one too: it is asked
// for through MTInterface like any other, and so begins with _beginthread as they do, so that
// threads which an application supplies serve it as well. The host's thread does not end before
// affinity and priority have been set: its handle would be closed, and could be somebody else's by
// then. Once the body is done it uses nothing of this object. Differences from the other host:
// there the thread is joined before the object goes.
class MTThreadWin : public MTThread {
 public:
  MTThreadWin(MTThreadBody* body, MTPriority priority, std::uint64_t processorMask);
  ~MTThreadWin() override;

  // Starts the thread, then sets affinity and priority on the running thread. False if the host
  // starts none; the object must then be deleted.
  bool Start();

 private:
  struct Launch;

  static void StartRoutine(void* launch);

  const MTPriority priority_;
  const std::uint64_t processorMask_;
};

// The host's number for a priority.
int HostPriority(MTThread::MTPriority priority);

}  // namespace Orvane
