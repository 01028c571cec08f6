#include "OSServices/Win/MTThreadWin.h"

#include <process.h>

#include <memory>

namespace Orvane {

// Of the starting and of the new thread; deleted by whichever of them is done with it last.
struct MTThreadWin::Launch {
  explicit Launch(MTThreadWin* startedThread)
      : thread(startedThread), adjusted(CreateEventA(nullptr, TRUE, FALSE, nullptr)) {}
  ~Launch() {
    if (adjusted) CloseHandle(adjusted);
  }
  Launch(const Launch&) = delete;
  Launch& operator=(const Launch&) = delete;

  MTThreadWin* const thread;
  const HANDLE adjusted;  // set once affinity and priority are set
};

MTThreadWin::MTThreadWin(MTThreadBody* body, MTPriority priority, std::uint64_t processorMask)
    : MTThread(body, priority, processorMask), priority_(priority), processorMask_(processorMask) {}

MTThreadWin::~MTThreadWin() {
  // KEPT: a body that ignored the request for 10 seconds goes on without its thread object.
  StopForDestruction();
}

bool MTThreadWin::Start() {
  auto launch = std::make_shared<Launch>(this);
  if (!launch->adjusted) {
    ForgetBody();
    return false;
  }
  auto argument = std::make_unique<std::shared_ptr<Launch>>(launch);
  const std::uintptr_t started = _beginthread(&MTThreadWin::StartRoutine, 0, argument.get());
  if (started == static_cast<std::uintptr_t>(-1) || started == 0) {
    ForgetBody();
    return false;
  }
  static_cast<void>(argument.release());  // the new thread's
  handle_ = reinterpret_cast<HANDLE>(started);
  // KEPT: set on the running thread; its first instructions may run without them.
  ApplyAffinity();
  ApplyPriority();
  handle_ = nullptr;
  SetEvent(launch->adjusted);
  return true;
}

void MTThreadWin::StartRoutine(void* argument) {
  const std::unique_ptr<std::shared_ptr<Launch>> owned(
      static_cast<std::shared_ptr<Launch>*>(argument));
  const std::shared_ptr<Launch> launch = *owned;
  launch->thread->Run();
  WaitForSingleObject(launch->adjusted, INFINITE);
}

void MTThreadWin::ApplyAffinity() {
  // KEPT: the host refuses the empty mask of kProcessorAny, and the thread runs anywhere.
  SetThreadAffinityMask(handle_, static_cast<DWORD_PTR>(processorMask_));  // best effort
}

void MTThreadWin::ApplyPriority() {
  SetThreadPriority(handle_, HostPriority(priority_));  // best effort
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
