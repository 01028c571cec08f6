#include "OSServices/Win/MTThreadWin.h"

#include <process.h>

#include <atomic>
#include <memory>
#include <new>

namespace Orvane {

// Of the starting and of the new thread: whichever of them leaves last deletes it.
struct MTThreadWin::Launch {
  explicit Launch(MTThreadWin* startedThread)
      : thread(startedThread), adjusted(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
  ~Launch() {
    if (adjusted) CloseHandle(adjusted);
  }
  Launch(const Launch&) = delete;
  Launch& operator=(const Launch&) = delete;

  void Leave() {
    if (--users == 0) delete this;
  }

  MTThreadWin* const thread;  // null when there is nothing to run
  const HANDLE adjusted;      // set once affinity and priority are set
  std::atomic<int> users{2};
};

MTThreadWin::MTThreadWin(MTThreadBody* body, MTPriority priority, std::uint64_t processorMask)
    : MTThread(body, priority, processorMask), priority_(priority), processorMask_(processorMask) {}

MTThreadWin::~MTThreadWin() {
  // KEPT: a body that ignored the request for 10 seconds goes on without its thread object.
  StopForDestruction();
}

bool MTThreadWin::Start() {
  // Without a body nobody waits for the end, and the object may be gone when the thread begins.
  std::unique_ptr<Launch> launch(new (std::nothrow) Launch(GetBody() ? this : nullptr));
  std::uintptr_t started = 0;
  if (launch && launch->adjusted) {
    started = _beginthread(&MTThreadWin::StartRoutine, 0, launch.get());
  }
  if (started == 0 || started == static_cast<std::uintptr_t>(-1)) {
    ForgetBody();
    return false;
  }
  const auto handle = reinterpret_cast<HANDLE>(started);
  // KEPT: set on the running thread; its first instructions may run without them. The host refuses
  // the empty mask of kProcessorAny, and the thread runs anywhere. Best effort.
  SetThreadAffinityMask(handle, static_cast<DWORD_PTR>(processorMask_));
  SetThreadPriority(handle, HostPriority(priority_));
  SetEvent(launch->adjusted);
  launch.release()->Leave();
  return true;
}

void MTThreadWin::StartRoutine(void* argument) {
  auto* const launch = static_cast<Launch*>(argument);
  if (launch->thread) launch->thread->Run();
  WaitForSingleObject(launch->adjusted, INFINITE);
  launch->Leave();
}

int HostPriority(MTThread::MTPriority priority) {
  switch (priority) {
    case MTThread::kPriorityLowest:
      return THREAD_PRIORITY_LOWEST;
    case MTThread::kPriorityBelowNormal:
      return THREAD_PRIORITY_BELOW_NORMAL;
    case MTThread::kPriorityAboveNormal:
      return THREAD_PRIORITY_ABOVE_NORMAL;
    case MTThread::kPriorityHighest:
      return THREAD_PRIORITY_HIGHEST;
    case MTThread::kPriorityTimeCritical:
      return THREAD_PRIORITY_TIME_CRITICAL;
    default:
      return THREAD_PRIORITY_NORMAL;
  }
}

}  // namespace Orvane
