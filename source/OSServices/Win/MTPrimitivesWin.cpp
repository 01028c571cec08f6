#include "OSServices/Win/MTPrimitivesWin.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kWithoutLimit = 0xFFFFFFFF;

}  // namespace

MTCritSecWin::MTCritSecWin() {
  InitializeCriticalSection(&section_);
}

MTCritSecWin::~MTCritSecWin() {
  DeleteCriticalSection(&section_);
}

void MTCritSecWin::Enter() {
  EnterCriticalSection(&section_);
}

void MTCritSecWin::Leave() {
  LeaveCriticalSection(&section_);
}

// Counts above the host's highest are refused by it: they are negative numbers there.
MTSemaphoreWin::MTSemaphoreWin(std::uint32_t maxCount, std::uint32_t initialCount)
    : MTSemaphore(maxCount, initialCount),
      handle_(CreateSemaphoreA(nullptr, static_cast<LONG>(initialCount),
                               static_cast<LONG>(maxCount), nullptr)) {}

MTSemaphoreWin::~MTSemaphoreWin() {
  if (handle_) CloseHandle(handle_);
}

bool MTSemaphoreWin::Release(std::uint32_t count) {
  // The host refuses to release nothing; not every implementation of it does.
  return handle_ && count != 0 && ReleaseSemaphore(handle_, static_cast<LONG>(count), nullptr) != 0;
}

bool MTSemaphoreWin::Wait(std::uint32_t timeoutMs, std::uint32_t count) {
  if (count == 0) return true;
  if (!handle_) return false;
  const std::uint32_t timeoutPerUnitMs =
      timeoutMs == kWithoutLimit ? kWithoutLimit : timeoutMs / count;
  for (std::uint32_t taken = 0; taken < count; ++taken) {
    if (WaitForSingleObject(handle_, timeoutPerUnitMs) != WAIT_OBJECT_0) return false;
  }
  return true;
}

MTAtomicUnsigned32Win::MTAtomicUnsigned32Win(std::uint32_t initial)
    : MTAtomicUnsigned32(initial), value_(initial) {}

MTAtomicUnsigned32Win::~MTAtomicUnsigned32Win() = default;

std::uint32_t MTAtomicUnsigned32Win::Get() {
  return value_.load();
}

std::uint32_t MTAtomicUnsigned32Win::Increment() {
  return value_.fetch_add(1) + 1;
}

std::uint32_t MTAtomicUnsigned32Win::Decrement() {
  return value_.fetch_sub(1) - 1;
}

bool MTAtomicUnsigned32Win::CompareAndSwap(std::uint32_t expected, std::uint32_t desired) {
  return value_.compare_exchange_strong(expected, desired);
}

MTAtomicUnsigned64Win::MTAtomicUnsigned64Win(std::uint64_t initial)
    : MTAtomicUnsigned64(initial), value_(initial) {}

MTAtomicUnsigned64Win::~MTAtomicUnsigned64Win() = default;

std::uint64_t MTAtomicUnsigned64Win::Get() {
  return value_.load();
}

std::uint64_t MTAtomicUnsigned64Win::Increment() {
  return static_cast<std::uint32_t>(value_.fetch_add(1) + 1);
}

std::uint64_t MTAtomicUnsigned64Win::Decrement() {
  return static_cast<std::uint32_t>(value_.fetch_sub(1) - 1);
}

bool MTAtomicUnsigned64Win::CompareAndSwap(std::uint64_t expected, std::uint64_t desired) {
  std::uint64_t previous = expected;
  value_.compare_exchange_strong(previous, desired);
  return static_cast<std::uint32_t>(previous) == expected;
}

}  // namespace Orvane
