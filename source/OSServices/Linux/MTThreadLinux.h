// A thread of the host, joinable until it is reaped.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstdint>

#include "MTPrimitives.h"
#include "OSServices/Linux/MTPrimitivesLinux.h"

namespace Orvane {

// Made by MTInterfaceImpLinux::NewThread, owned by its caller. The POSIX thread is joined by
// the Terminate that reaps it or by the destructor, so that the done semaphore is not deleted under
// it. It does not end before affinity and priority have been set: its host id would be free for
// somebody else's thread. Differences from the other host: there the run-time library closes the
// handle.
class MTThreadLinux : public MTThread {
 public:
  MTThreadLinux(MTThreadBody* body, MTPriority priority, std::uint64_t processorMask);
  ~MTThreadLinux() override;

  // Starts the thread, then sets affinity and priority on the running thread. False if the host
  // starts none; the object must then be deleted.
  bool Start();
  bool Terminate(std::uint32_t timeoutMs) override;

 private:
  static void* StartRoutine(void* thread);
  void ApplyAffinity();
  void ApplyPriority();
  // Once: waits for the host's thread to end, or leaves it to itself.
  void LetGoOfThread(bool join);

  const MTPriority priority_;
  const std::uint64_t processorMask_;
  pthread_t handle_{};
  pid_t hostThreadID_ = 0;      // written by the new thread before `announced_`
  MTSemaphoreLinux announced_;  // released once the new thread has an id
  MTSemaphoreLinux adjusted_;   // released once affinity and priority are set
  MTCritSecLinux joinLock_;     // whoever reaps second returns after the join, too
  bool joinable_ ORVANE_GUARDED_BY(joinLock_) = false;  // from the start to the join
};

// The nice value for a priority in a process whose own nice value is `base`.
int HostPriority(MTThread::MTPriority priority, int base);

}  // namespace Orvane
