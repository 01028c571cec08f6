#include "OSServices/Linux/MTThreadLinux.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "OSServices/CritSecLock.h"

namespace Orvane {

MTThreadLinux::MTThreadLinux(MTThreadBody* body, MTPriority priority, std::uint64_t processorMask)
    : MTThread(body, priority, processorMask),
      priority_(priority),
      processorMask_(processorMask),
      announced_(1, 0),
      adjusted_(1, 0) {}

MTThreadLinux::~MTThreadLinux() {
  const bool reaped = StopForDestruction();
  // KEPT: a body that ignored the request for 10 seconds goes on without its thread object.
  LetGoOfThread(/*join=*/reaped);
}

bool MTThreadLinux::Start() {
  if (pthread_create(&handle_, nullptr, &MTThreadLinux::StartRoutine, this) != 0) {
    ForgetBody();
    return false;
  }
  {
    CritSecLock lock(&joinLock_);
    joinable_ = true;
  }
  announced_.Wait(0xFFFFFFFF, 1);
  // KEPT: set on the running thread; its first instructions may run without them.
  ApplyAffinity();
  ApplyPriority();
  adjusted_.Release(1);
  return true;
}

bool MTThreadLinux::Terminate(std::uint32_t timeoutMs) {
  if (!MTThread::Terminate(timeoutMs)) return false;
  LetGoOfThread(/*join=*/true);
  return true;
}

void* MTThreadLinux::StartRoutine(void* argument) {
  auto* thread = static_cast<MTThreadLinux*>(argument);
  thread->hostThreadID_ = gettid();
  thread->announced_.Release(1);
  thread->Run();
  thread->adjusted_.Wait(0xFFFFFFFF, 1);
  return nullptr;
}

void MTThreadLinux::ApplyAffinity() {
  if (processorMask_ == kProcessorAny) return;
  cpu_set_t set;
  CPU_ZERO(&set);
  for (unsigned cpu = 0; cpu < 64; ++cpu) {
    if ((processorMask_ >> cpu) & 1) CPU_SET(cpu, &set);
  }
  sched_setaffinity(hostThreadID_, sizeof set, &set);  // best effort
}

void MTThreadLinux::ApplyPriority() {
  // A new thread inherits the value of its creator, so the value of the process is the base.
  const int base = getpriority(PRIO_PROCESS, static_cast<id_t>(getpid()));
  const auto id = static_cast<id_t>(hostThreadID_);
  const int wanted = HostPriority(priority_, base);
  if (setpriority(PRIO_PROCESS, id, wanted) != 0 && wanted < base) {
    setpriority(PRIO_PROCESS, id, base);
  }
}

void MTThreadLinux::LetGoOfThread(bool join) {
  CritSecLock lock(&joinLock_);
  if (!joinable_) return;
  joinable_ = false;
  // A thread that reaps itself cannot wait for its own end.
  if (join && !pthread_equal(handle_, pthread_self())) {
    pthread_join(handle_, nullptr);
  } else {
    pthread_detach(handle_);
  }
}

int HostPriority(MTThread::MTPriority priority, int base) {
  int delta = 0;
  switch (priority) {
    case MTThread::kPriorityLowest:
      delta = 10;
      break;
    case MTThread::kPriorityBelowNormal:
      delta = 5;
      break;
    case MTThread::kPriorityAboveNormal:
      delta = -5;
      break;
    case MTThread::kPriorityHighest:
      delta = -10;
      break;
    case MTThread::kPriorityTimeCritical:
      delta = -15;
      break;
    default:
      break;
  }
  return std::clamp(base + delta, -20, 19);
}

}  // namespace Orvane
