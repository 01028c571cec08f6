// What threads get from this host: priorities, processors, an end without remains.
#include <atomic>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <utility>

#include "MTInterface.h"
#include "OSServices/Win/MTThreadWin.h"
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
  static int HostPriorityOf(int priority) {
    int found = 1000;
    RunWith(static_cast<MTThread::MTPriority>(priority), MTThread::kProcessorAny,
            [&] { found = GetThreadPriority(GetCurrentThread()); });
    return found;
  }
};

TEST_F(MTHostTest, ThePrioritiesAreThoseOfTheHostInOrder) {
  const int kExpected[] = {-2, -1, 0, 1, 2, 15};
  for (std::size_t i = 0; i < std::size(kLowToHigh); ++i) {
    EXPECT_EQ(kExpected[i], HostPriority(kLowToHigh[i]));
  }
}

TEST_F(MTHostTest, AThreadRunsWithTheHostPriorityOfItsPriority) {
  for (const MTThread::MTPriority priority : kLowToHigh) {
    EXPECT_EQ(HostPriority(priority), HostPriorityOf(priority)) << priority;
  }
}

// Ends at once, and says at the very end of its thread which priority it had.
class HastyBody : public MTThreadBody {
 public:
  explicit HastyBody(std::function<void(int)> last) : last_(std::move(last)) {}

 protected:
  void TerminateBody() override {}
  void ThreadMain(MTThread*) override {
    CallAtEndOfThread([last = last_] { last(GetThreadPriority(GetCurrentThread())); });
  }

 private:
  const std::function<void(int)> last_;
};

TEST_F(MTHostTest, AThreadThatEndsAtOnceStillGetsItsPriority) {
  constexpr int kThreads = 2000;  // few of them meet the moment
  std::atomic<int> ended{0};
  std::atomic<int> highest{0};
  HastyBody body([&](int priority) {
    if (priority == HostPriority(MTThread::kPriorityHighest)) ++highest;
    ++ended;
  });
  for (int i = 0; i < kThreads; ++i) {
    const std::unique_ptr<MTThread> thread(
        MTInterface::NewThread(&body, MTThread::kPriorityHighest, MTThread::kProcessorAny));
    EXPECT_TRUE(thread->Terminate(kForEver));
  }
  for (int wait = 0; ended < kThreads && wait < 6000; ++wait) MTInterface::Sleep(5);
  EXPECT_EQ(kThreads, ended);
  EXPECT_EQ(kThreads, highest);
}

TEST_F(MTHostTest, APriorityOutsideTheListIsNormal) {
  for (const int priority : {5, -1000, 1, 99, 1001, 0x7FFFFFFF}) {
    EXPECT_EQ(THREAD_PRIORITY_NORMAL, HostPriorityOf(priority)) << priority;
  }
}

TEST_F(MTHostTest, TheProcessorMaskIsTheAffinity) {
  DWORD_PTR allowed = 0;
  DWORD_PTR ofSystem = 0;
  ASSERT_NE(0, GetProcessAffinityMask(GetCurrentProcess(), &allowed, &ofSystem));
  for (unsigned cpu = 0; cpu < 64; ++cpu) {
    const DWORD_PTR one = DWORD_PTR{1} << cpu;
    if (!(allowed & one)) continue;
    DWORD_PTR before = 0;
    DWORD ranOn = 1000;
    RunWith(MTThread::kPriorityNormal, one, [&] {
      ranOn = GetCurrentProcessorNumber();
      before = SetThreadAffinityMask(GetCurrentThread(), allowed);
    });
    EXPECT_EQ(one, before);
    EXPECT_EQ(cpu, ranOn);
  }
}

TEST_F(MTHostTest, AnyProcessorAndImpossibleOnesRestrictNothing) {
  DWORD_PTR allowed = 0;
  DWORD_PTR ofSystem = 0;
  ASSERT_NE(0, GetProcessAffinityMask(GetCurrentProcess(), &allowed, &ofSystem));
  for (const std::uint64_t mask :
       {std::uint64_t{MTThread::kProcessorAny}, std::uint64_t{~allowed}}) {
    DWORD_PTR before = 0;
    RunWith(MTThread::kPriorityNormal, mask,
            [&] { before = SetThreadAffinityMask(GetCurrentThread(), allowed); });
    EXPECT_EQ(allowed, before) << mask;
  }
}

TEST_F(MTHostTest, TheCurrentThreadIsTheOneOfTheHost) {
  EXPECT_EQ(std::int64_t{GetCurrentThreadId()}, MTInterface::GetCurrentThreadID());
  std::int64_t known = 0;
  std::int64_t hosts = 1;
  RunWith(MTThread::kPriorityNormal, MTThread::kProcessorAny, [&] {
    known = MTInterface::GetCurrentThreadID();
    hosts = GetCurrentThreadId();
  });
  EXPECT_EQ(hosts, known);
}

TEST_F(MTHostTest, TheProcessorsAreThoseOnline) {
  SYSTEM_INFO info{};
  GetSystemInfo(&info);
  EXPECT_EQ(std::uint64_t{info.dwNumberOfProcessors}, MTInterface::GetCPUCount());
}

TEST_F(MTHostTest, ThreadsThatWereReapedOrDeletedLeaveNoHandle) {
  constexpr DWORD kThreads = 100;
  const auto runOne = [](bool reap) {
    LookingBody body([] {});
    const std::unique_ptr<MTThread> thread(
        MTInterface::NewThread(&body, MTThread::kPriorityNormal, MTThread::kProcessorAny));
    if (reap) thread->Terminate(kForEver);
  };
  const auto countHandles = [] {
    DWORD count = 0;
    GetProcessHandleCount(GetCurrentProcess(), &count);
    return count;
  };
  for (int i = 0; i < 10; ++i) runOne(true);  // what the host keeps for later is kept by now
  const DWORD before = countHandles();
  for (DWORD i = 0; i < kThreads; ++i) runOne(i % 2 == 0);
  // The last threads may be about to end.
  for (int wait = 0; countHandles() > before + 5 && wait < 1000; ++wait) MTInterface::Sleep(5);
  EXPECT_LE(countHandles(), before + 5);
}

}  // namespace
}  // namespace Orvane
