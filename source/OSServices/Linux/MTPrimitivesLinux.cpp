#include "OSServices/Linux/MTPrimitivesLinux.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <limits>

namespace Orvane {
namespace {

constexpr std::uint64_t kOneWaiter = std::uint64_t{1} << 32;
constexpr std::uint32_t kWithoutLimit = 0xFFFFFFFF;

// Of a critical section.
constexpr std::uint32_t kFree = 0;
constexpr std::uint32_t kTaken = 1;
constexpr std::uint32_t kTakenAndWanted = 2;
constexpr pthread_t kNobody = 0;  // no thread has this number

std::uint32_t CountOf(std::uint64_t state) {
  return static_cast<std::uint32_t>(state);
}
std::uint32_t WaitersOf(std::uint64_t state) {
  return static_cast<std::uint32_t>(state >> 32);
}

std::uint32_t* CountWord(std::atomic<std::uint64_t>* state) {
  static_assert(sizeof(std::atomic<std::uint64_t>) == sizeof(std::uint64_t));
  static_assert(std::endian::native == std::endian::little, "the count is the low half");
  return reinterpret_cast<std::uint32_t*>(state);
}

// None where nobody else can run meanwhile.
int LooksBeforeSleep() {
  constexpr int kLooks = 16;
  static const int looks = sysconf(_SC_NPROCESSORS_ONLN) > 1 ? kLooks : 1;
  return looks;
}

// Leaves the processor's units to others for a moment.
void Pause() {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

timespec DeadlineIn(std::uint32_t timeoutMs) {
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += timeoutMs / 1000;
  deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_nsec -= 1000000000L;
    ++deadline.tv_sec;
  }
  return deadline;
}

}  // namespace

MTCritSecLinux::MTCritSecLinux() : state_(kFree), owner_(kNobody) {
  static_assert(sizeof(state_) == sizeof(std::uint32_t), "the kernel looks at it");
}

MTCritSecLinux::~MTCritSecLinux() = default;

void MTCritSecLinux::Enter() {
  const pthread_t self = pthread_self();
  if (owner_.load(std::memory_order_relaxed) == self) {
    ++depth_;
    return;
  }
  std::uint32_t state = kFree;
  if (!state_.compare_exchange_strong(state, kTaken, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
    EnterTaken();
  }
  owner_.store(self, std::memory_order_relaxed);
  depth_ = 1;
}

// Sections are short: who finds one taken gets it sooner by waiting for it than by going to sleep,
// unless its holder does not run.
void MTCritSecLinux::EnterTaken() {
  for (int look = 0; look < LooksBeforeSleep(); ++look) {
    std::uint32_t state = kFree;
    if (state_.load(std::memory_order_relaxed) == kFree &&
        state_.compare_exchange_weak(state, kTaken, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
      return;
    }
    Pause();
  }
  // From here on it is left with a wake, needed or not: others may sleep too.
  while (state_.exchange(kTakenAndWanted, std::memory_order_acquire) != kFree) {
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&state_), FUTEX_WAIT_PRIVATE,
            kTakenAndWanted, nullptr, nullptr, 0);
  }
}

void MTCritSecLinux::Leave() {
  if (--depth_ > 0) return;
  owner_.store(kNobody, std::memory_order_relaxed);
  if (state_.exchange(kFree, std::memory_order_release) == kTakenAndWanted) {
    // A wake on an address that is something else by now is a spurious one there.
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(&state_), FUTEX_WAKE_PRIVATE, 1, nullptr,
            nullptr, 0);
  }
}

MTSemaphoreLinux::MTSemaphoreLinux(std::uint32_t maxCount, std::uint32_t initialCount)
    : MTSemaphore(maxCount, initialCount),
      maxCount_(maxCount),
      valid_(maxCount > 0 && initialCount <= maxCount),
      state_(initialCount) {}

MTSemaphoreLinux::~MTSemaphoreLinux() = default;

bool MTSemaphoreLinux::Release(std::uint32_t count) {
  if (!valid_ || count == 0) return false;
  std::uint64_t state = state_.load(std::memory_order_relaxed);
  do {
    if (count > maxCount_ - CountOf(state)) return false;
  } while (!state_.compare_exchange_weak(state, state + count));
  // From here on only the address is used: a waiter may have deleted the semaphore. A wake on a
  // reused address is a spurious one there, which every futex user has to expect.
  if (WaitersOf(state) > 0) {
    const std::uint32_t wakes = std::min<std::uint32_t>(count, std::numeric_limits<int>::max());
    syscall(SYS_futex, CountWord(&state_), FUTEX_WAKE_PRIVATE, wakes, nullptr, nullptr, 0);
  }
  return true;
}

bool MTSemaphoreLinux::Wait(std::uint32_t timeoutMs, std::uint32_t count) {
  if (count == 0) return true;
  if (!valid_) return false;
  const std::uint32_t timeoutPerUnitMs =
      timeoutMs == kWithoutLimit ? kWithoutLimit : timeoutMs / count;
  for (std::uint32_t taken = 0; taken < count; ++taken) {
    if (!WaitForOne(timeoutPerUnitMs)) return false;
  }
  return true;
}

bool MTSemaphoreLinux::TryTake() {
  std::uint64_t state = state_.load(std::memory_order_relaxed);
  while (CountOf(state) > 0) {
    if (state_.compare_exchange_weak(state, state - 1)) return true;
  }
  return false;
}

bool MTSemaphoreLinux::WaitForOne(std::uint32_t timeoutMs) {
  if (TryTake()) return true;
  if (timeoutMs == 0) return false;
  const bool hasLimit = timeoutMs != kWithoutLimit;
  const timespec deadline = hasLimit ? DeadlineIn(timeoutMs) : timespec{};
  const timespec* limit = hasLimit ? &deadline : nullptr;
  state_.fetch_add(kOneWaiter);
  for (;;) {
    std::uint64_t state = state_.load(std::memory_order_relaxed);
    while (CountOf(state) > 0) {
      // Takes the unit and leaves the waiters in one step.
      if (state_.compare_exchange_weak(state, state - 1 - kOneWaiter)) return true;
    }
    const long woken = syscall(SYS_futex, CountWord(&state_), FUTEX_WAIT_BITSET_PRIVATE, 0, limit,
                               nullptr, FUTEX_BITSET_MATCH_ANY);
    if (woken == -1 && errno == ETIMEDOUT) {
      state = state_.load(std::memory_order_relaxed);
      // A unit that came in the last instant is still taken.
      while (CountOf(state) > 0) {
        if (state_.compare_exchange_weak(state, state - 1 - kOneWaiter)) return true;
      }
      state_.fetch_sub(kOneWaiter);
      return false;
    }
  }
}

MTAtomicUnsigned32Linux::MTAtomicUnsigned32Linux(std::uint32_t initial)
    : MTAtomicUnsigned32(initial), value_(initial) {}

MTAtomicUnsigned32Linux::~MTAtomicUnsigned32Linux() = default;

std::uint32_t MTAtomicUnsigned32Linux::Get() {
  return value_.load();
}

std::uint32_t MTAtomicUnsigned32Linux::Increment() {
  return value_.fetch_add(1) + 1;
}

std::uint32_t MTAtomicUnsigned32Linux::Decrement() {
  return value_.fetch_sub(1) - 1;
}

bool MTAtomicUnsigned32Linux::CompareAndSwap(std::uint32_t expected, std::uint32_t desired) {
  return value_.compare_exchange_strong(expected, desired);
}

MTAtomicUnsigned64Linux::MTAtomicUnsigned64Linux(std::uint64_t initial)
    : MTAtomicUnsigned64(initial), value_(initial) {}

MTAtomicUnsigned64Linux::~MTAtomicUnsigned64Linux() = default;

std::uint64_t MTAtomicUnsigned64Linux::Get() {
  return value_.load();
}

std::uint64_t MTAtomicUnsigned64Linux::Increment() {
  return static_cast<std::uint32_t>(value_.fetch_add(1) + 1);
}

std::uint64_t MTAtomicUnsigned64Linux::Decrement() {
  return static_cast<std::uint32_t>(value_.fetch_sub(1) - 1);
}

bool MTAtomicUnsigned64Linux::CompareAndSwap(std::uint64_t expected, std::uint64_t desired) {
  std::uint64_t previous = expected;
  value_.compare_exchange_strong(previous, desired);
  return static_cast<std::uint32_t>(previous) == expected;
}

}  // namespace Orvane
