#include <sched.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "OSServices/Linux/MTPrimitivesLinux.h"
#include "OSServices/Linux/MTThreadLinux.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

constexpr const char* kUnableToConstruct = "MTInterface Unable To Construct Object";

}  // namespace

MTInterfaceImpLinux::MTInterfaceImpLinux() {
  timespec resolution{};
  if (clock_getres(CLOCK_MONOTONIC, &resolution) != 0) throw kUnableToConstruct;
}

MTInterfaceImpLinux::~MTInterfaceImpLinux() = default;

MTCritSec* MTInterfaceImpLinux::NewCritSec() {
  return new MTCritSecLinux;
}

MTSemaphore* MTInterfaceImpLinux::NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) {
  return new MTSemaphoreLinux(maxCount, initialCount);
}

MTAtomicUnsigned32* MTInterfaceImpLinux::NewAtomicUnsigned32(std::uint32_t initial) {
  return new MTAtomicUnsigned32Linux(initial);
}

MTAtomicUnsigned64* MTInterfaceImpLinux::NewAtomicUnsigned64(std::uint64_t initial) {
  return new MTAtomicUnsigned64Linux(initial);
}

MTThread* MTInterfaceImpLinux::NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                                         std::uint64_t processorMask) {
  auto thread = std::make_unique<MTThreadLinux>(body, priority, processorMask);
  if (!thread->Start()) {
    thread.reset();
    throw kUnableToConstruct;
  }
  return thread.release();
}

void MTInterfaceImpLinux::DebugString(const char* text) {
  if (!text) return;
  std::size_t left = std::strlen(text);
  while (left > 0) {
    const ssize_t written = write(STDERR_FILENO, text, left);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    text += written;
    left -= static_cast<std::size_t>(written);
  }
}

std::int64_t MTInterfaceImpLinux::GetCurrentThreadID() {
  return gettid();
}

std::uint64_t MTInterfaceImpLinux::GetCurrentTimeMicro() {
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0;
  return static_cast<std::uint64_t>(now.tv_sec) * 1000000U +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
}

std::uint64_t MTInterfaceImpLinux::GetCPUCount() {
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  return count > 0 ? static_cast<std::uint64_t>(count) : 1;
}

}  // namespace Orvane
