#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

#include "OSServices/Sim/SimGate.h"
#include "OSServices/Sim/SimSanitizers.h"

namespace Orvane {
namespace {

#if defined(ORVANE_SIM_TSAN)
// The simulated primitives say what is ordered.
constexpr std::memory_order kTake = std::memory_order_relaxed;
constexpr std::memory_order kGive = std::memory_order_relaxed;
#else
constexpr std::memory_order kTake = std::memory_order_acquire;
constexpr std::memory_order kGive = std::memory_order_release;
#endif

class SimGateLinux : public SimGate {
 public:
  void Give() override {
    asm volatile("" ::: "memory");
    open_.store(1, kGive);
    syscall(SYS_futex, &open_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  }
  void Take() override {
    while (open_.load(kTake) == 0) {
      syscall(SYS_futex, &open_, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }
    open_.store(0, std::memory_order_relaxed);
    asm volatile("" ::: "memory");
  }

 private:
  std::atomic<std::uint32_t> open_{0};
};

}  // namespace

std::unique_ptr<SimGate> NewSimGate() {
  return std::make_unique<SimGateLinux>();
}

}  // namespace Orvane
