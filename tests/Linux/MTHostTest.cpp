// What threads get from this host: priorities, processors, an end without remains.
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <thread>
#include <utility>

#include "MTInterface.h"
#include "OSServices/Linux/MTThreadLinux.h"
#include "OrvaneTest.h"
#include "TestHost.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kForEver = 0xFFFFFFFF;

constexpr MTThread::MTPriority kLowToHigh[] = {
    MTThread::kPriorityLowest,      MTThread::kPriorityBelowNormal, MTThread::kPriorityNormal,
    MTThread::kPriorityAboveNormal, MTThread::kPriorityHighest,     MTThread::kPriorityTimeCritical,
};

// Looks at itself once it is allowed to, which is after NewThread has returned.
class LookingBody : public MTThreadBody {
 public:
  explicit LookingBody(std::function<void()> look) : look_(std::move(look)) {}

 protected:
  void TerminateBody() override { go_->Release(1); }
  void ThreadMain(MTThread*) override {
    go_->Wait(kForEver, 1);
    look_();
  }

 private:
  const std::function<void()> look_;
  const std::unique_ptr<MTSemaphore> go_{MTInterface::NewSemaphore(1, 0)};
};

class MTHostTest : public OrvaneTest {
 protected:
  static void RunWith(MTThread::MTPriority priority, std::uint64_t processors,
                      std::function<void()> look) {
    LookingBody body(std::move(look));
    const std::unique_ptr<MTThread> thread(MTInterface::NewThread(&body, priority, processors));
    EXPECT_TRUE(thread->Terminate(kForEver));
  }
  static int NiceOf(int priority) {
    int nice = 1000;
    RunWith(static_cast<MTThread::MTPriority>(priority), MTThread::kProcessorAny,
            [&] { nice = getpriority(PRIO_PROCESS, 0); });
    return nice;
  }
  static int NiceOfProcess() { return getpriority(PRIO_PROCESS, static_cast<id_t>(getpid())); }
};

TEST_F(MTHostTest, ThePrioritiesAreSixNiceValuesInOrder) {
  for (const int base : {-5, -4, 0, 4, 9}) {
    for (std::size_t i = 1; i < std::size(kLowToHigh); ++i) {
      EXPECT_LT(HostPriority(kLowToHigh[i], base), HostPriority(kLowToHigh[i - 1], base));
    }
    EXPECT_EQ(base, HostPriority(MTThread::kPriorityNormal, base));
  }
}

TEST_F(MTHostTest, NoPriorityLeavesTheRangeOfTheHost) {
  for (const int base : {-20, -12, 12, 19}) {
    for (const MTThread::MTPriority priority : kLowToHigh) {
      EXPECT_LE(-20, HostPriority(priority, base));
      EXPECT_GE(19, HostPriority(priority, base));
    }
  }
}

TEST_F(MTHostTest, AThreadRunsWithTheNiceValueOfItsPriority) {
  const int base = NiceOfProcess();
  // What may not be raised stays as it is.
  const bool mayRaise = setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), base - 1) == 0;
  if (mayRaise) setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), base);
  for (const MTThread::MTPriority priority : kLowToHigh) {
    const int wanted = HostPriority(priority, base);
    EXPECT_EQ(wanted < base && !mayRaise ? base : wanted, NiceOf(priority)) << priority;
  }
}

TEST_F(MTHostTest, APriorityOutsideTheListIsNormal) {
  const int normal = NiceOf(MTThread::kPriorityNormal);
  for (const int priority : {5, -1000, 1, 99, 1001, 0x7FFFFFFF}) {
    EXPECT_EQ(normal, NiceOf(priority)) << priority;
  }
}

TEST_F(MTHostTest, AThreadOfALoweredThreadCountsFromTheProcess) {
  int inner = 1000;
  RunWith(MTThread::kPriorityBelowNormal, MTThread::kProcessorAny,
          [&] { inner = NiceOf(MTThread::kPriorityLowest); });
  EXPECT_EQ(HostPriority(MTThread::kPriorityLowest, NiceOfProcess()), inner);
}

TEST_F(MTHostTest, TheProcessorMaskIsTheAffinity) {
  cpu_set_t allowed;
  ASSERT_EQ(0, sched_getaffinity(0, sizeof allowed, &allowed));
  for (unsigned cpu = 0; cpu < 64; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t got;
    CPU_ZERO(&got);
    int ranOn = -1;
    RunWith(MTThread::kPriorityNormal, std::uint64_t{1} << cpu, [&] {
      sched_getaffinity(0, sizeof got, &got);
      ranOn = sched_getcpu();
    });
    EXPECT_EQ(1, CPU_COUNT(&got));
    EXPECT_TRUE(CPU_ISSET(cpu, &got)) << cpu;
    EXPECT_EQ(static_cast<int>(cpu), ranOn);
  }
}

TEST_F(MTHostTest, AnyProcessorAndImpossibleOnesRestrictNothing) {
  cpu_set_t allowed;
  ASSERT_EQ(0, sched_getaffinity(0, sizeof allowed, &allowed));
  std::uint64_t impossible = 0;
  for (unsigned cpu = 0; cpu < 64; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) impossible |= std::uint64_t{1} << cpu;
  }
  for (const std::uint64_t mask : {MTThread::kProcessorAny, impossible}) {
    cpu_set_t got;
    CPU_ZERO(&got);
    RunWith(MTThread::kPriorityNormal, mask, [&] { sched_getaffinity(0, sizeof got, &got); });
    EXPECT_TRUE(CPU_EQUAL(&allowed, &got)) << mask;
  }
}

TEST_F(MTHostTest, TheCurrentThreadIsTheOneOfTheKernel) {
  EXPECT_EQ(gettid(), MTInterface::GetCurrentThreadID());
  std::int64_t known = 0;
  std::int64_t kernels = 1;
  RunWith(MTThread::kPriorityNormal, MTThread::kProcessorAny, [&] {
    known = MTInterface::GetCurrentThreadID();
    kernels = gettid();
  });
  EXPECT_EQ(kernels, known);
}

TEST_F(MTHostTest, TheProcessorsAreThoseOnline) {
  EXPECT_EQ(static_cast<std::uint64_t>(sysconf(_SC_NPROCESSORS_ONLN)), MTInterface::GetCPUCount());
}

// Bytes of address space, of which every thread that is not joined keeps its stack.
std::uint64_t AddressSpace() {
  std::uint64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
}

TEST_F(MTHostTest, ThreadsThatWereReapedOrDeletedLeaveNoStack) {
  constexpr int kThreads = 100;
  constexpr std::uint64_t kStack = std::uint64_t{8} << 20;
  rlimit stack{};
  ASSERT_EQ(0, getrlimit(RLIMIT_STACK, &stack));
  const std::uint64_t each = stack.rlim_cur == RLIM_INFINITY ? kStack / 4 : stack.rlim_cur;
  const auto runOne = [](bool reap) {
    LookingBody body([] {});
    const std::unique_ptr<MTThread> thread(
        MTInterface::NewThread(&body, MTThread::kPriorityNormal, MTThread::kProcessorAny));
    if (reap) thread->Terminate(kForEver);
  };
  for (int i = 0; i < 10; ++i) runOne(true);  // what the host keeps for later is kept by now
  const std::uint64_t before = AddressSpace();
  for (int i = 0; i < kThreads; ++i) runOne(i % 2 == 0);
  EXPECT_LT(AddressSpace(), before + kThreads * each / 2);
}

TEST_F(MTHostTest, ATerminatedThreadHasTakenItsLastStep) {
  std::atomic<bool> taken{false};
  RunWith(MTThread::kPriorityNormal, MTThread::kProcessorAny, [&] {
    CallAtEndOfThread([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds{50});
      taken = true;
    });
  });
  EXPECT_TRUE(taken);
}

}  // namespace
}  // namespace Orvane
