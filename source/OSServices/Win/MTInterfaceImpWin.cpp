#include <memory>

#include "OSServices/Win/MTPrimitivesWin.h"
#include "OSServices/Win/MTThreadWin.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

constexpr const char* kUnableToConstruct = "MTInterface Unable To Construct Object";

double microsecondsPerTick = 0;  // of the performance counter; set by every constructor, alike

}  // namespace

MTInterfaceImpWin::MTInterfaceImpWin() {
  LARGE_INTEGER frequency{};
  if (!QueryPerformanceFrequency(&frequency) || frequency.QuadPart <= 0) throw kUnableToConstruct;
  microsecondsPerTick = 1000000.0 / static_cast<double>(frequency.QuadPart);
}

MTInterfaceImpWin::~MTInterfaceImpWin() = default;

MTCritSec* MTInterfaceImpWin::NewCritSec() {
  return new MTCritSecWin;
}

MTSemaphore* MTInterfaceImpWin::NewSemaphore(std::uint32_t maxCount, std::uint32_t initialCount) {
  return new MTSemaphoreWin(maxCount, initialCount);
}

MTAtomicUnsigned32* MTInterfaceImpWin::NewAtomicUnsigned32(std::uint32_t initial) {
  return new MTAtomicUnsigned32Win(initial);
}

MTAtomicUnsigned64* MTInterfaceImpWin::NewAtomicUnsigned64(std::uint64_t initial) {
  return new MTAtomicUnsigned64Win(initial);
}

MTThread* MTInterfaceImpWin::NewThread(MTThreadBody* body, MTThread::MTPriority priority,
                                       std::uint64_t processorMask) {
  auto thread = std::make_unique<MTThreadWin>(body, priority, processorMask);
  if (!thread->Start()) {
    thread.reset();
    throw kUnableToConstruct;
  }
  return thread.release();
}

void MTInterfaceImpWin::DebugString(const char* text) {
  if (text) OutputDebugStringA(text);
}

std::int64_t MTInterfaceImpWin::GetCurrentThreadID() {
  return GetCurrentThreadId();
}

std::uint64_t MTInterfaceImpWin::GetCurrentTimeMicro() {
  LARGE_INTEGER ticks{};
  if (!QueryPerformanceCounter(&ticks)) return 0;
  return static_cast<std::uint64_t>(static_cast<double>(ticks.QuadPart) * microsecondsPerTick);
}

std::uint64_t MTInterfaceImpWin::GetCPUCount() {
  SYSTEM_INFO info{};
  GetSystemInfo(&info);
  return info.dwNumberOfProcessors > 0 ? info.dwNumberOfProcessors : 1;
}

}  // namespace Orvane
