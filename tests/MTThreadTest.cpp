// Threads: their body, their states, their end.
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "MTInterface.h"
#include "MTPrimitives.h"
#include "OrvaneTest.h"
#include "TestHost.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kForEver = 0xFFFFFFFF;

// Does what the test wants on the new thread; counts how often it is asked to finish.
class CommandedBody : public MTThreadBody {
 public:
  using Work = std::function<void(MTThread*)>;
  explicit CommandedBody(Work work) : work_(std::move(work)) {}

  std::atomic<int> asked{0};

 protected:
  void TerminateBody() override { ++asked; }
  void ThreadMain(MTThread* thread) override { work_(thread); }

 private:
  const Work work_;
};

// A body that goes on until it is asked to finish, as bodies should.
CommandedBody::Work UntilTerminating() {
  return [](MTThread* thread) {
    while (!thread->IsTerminating()) std::this_thread::yield();
  };
}

class MTThreadTest : public OrvaneTest {
 protected:
  void SetUp() override {
    OrvaneTest::SetUp();
    go_.reset(MTInterface::NewSemaphore(100, 0));
    there_.reset(MTInterface::NewSemaphore(100, 0));
  }
  void TearDown() override {
    go_.reset();
    there_.reset();
    OrvaneTest::TearDown();
  }
  static std::unique_ptr<MTThread> Start(MTThreadBody* body) {
    return std::unique_ptr<MTThread>(
        MTInterface::NewThread(body, MTThread::kPriorityNormal, MTThread::kProcessorAny));
  }

  // Released by a test that lets a body go.
  std::unique_ptr<MTSemaphore> go_;
  std::unique_ptr<MTSemaphore> there_;
};

TEST_F(MTThreadTest, TheBodyRunsOnAThreadOfItsOwn) {
  std::int64_t id = 0;
  MTThread* seen = nullptr;
  CommandedBody body([&](MTThread* thread) {
    id = MTInterface::GetCurrentThreadID();
    seen = thread;
    there_->Release(1);
  });
  const std::unique_ptr<MTThread> thread = Start(&body);
  EXPECT_TRUE(there_->Wait(kForEver, 1));
  EXPECT_NE(MTInterface::GetCurrentThreadID(), id);
  EXPECT_EQ(thread.get(), seen);
  EXPECT_TRUE(thread->Terminate(kForEver));
}

TEST_F(MTThreadTest, TerminateAsksTheBodyAndWaitsForItsEnd) {
  CommandedBody body(UntilTerminating());
  const std::unique_ptr<MTThread> thread = Start(&body);
  EXPECT_FALSE(thread->IsTerminating());
  EXPECT_EQ(0, body.asked);
  EXPECT_TRUE(thread->Terminate(kForEver));
  EXPECT_EQ(1, body.asked);
}

TEST_F(MTThreadTest, AReapedThreadIsNotTerminatingAndTerminateAnswersFalse) {
  CommandedBody body(UntilTerminating());
  const std::unique_ptr<MTThread> thread = Start(&body);
  EXPECT_TRUE(thread->Terminate(kForEver));
  EXPECT_FALSE(thread->IsTerminating());
  EXPECT_FALSE(thread->Terminate(0));
  EXPECT_FALSE(thread->Terminate(kForEver));
  EXPECT_EQ(1, body.asked);
  EXPECT_FALSE(thread->IsTerminating());
}

TEST_F(MTThreadTest, TerminateOfABodyThatDoesNotListenTimesOutAndSucceedsLater) {
  CommandedBody body([&](MTThread*) { go_->Wait(kForEver, 1); });
  const std::unique_ptr<MTThread> thread = Start(&body);
  const std::uint64_t start = MTInterface::GetCurrentTimeMicro();
  EXPECT_FALSE(thread->Terminate(50));
  EXPECT_GE(MTInterface::GetCurrentTimeMicro() - start, 49000U);
  EXPECT_TRUE(thread->IsTerminating());
  EXPECT_FALSE(thread->Terminate(0));
  EXPECT_TRUE(thread->IsTerminating());
  go_->Release(1);
  EXPECT_TRUE(thread->Terminate(kForEver));
  EXPECT_EQ(3, body.asked);
}

TEST_F(MTThreadTest, TerminateAfterTheBodyReturnedAnswersAtOnce) {
  // The end of the body is seen by the end of the host's thread: its locals go last.
  CommandedBody body([&](MTThread*) { CallAtEndOfThread([&] { there_->Release(1); }); });
  const std::unique_ptr<MTThread> thread = Start(&body);
  EXPECT_TRUE(there_->Wait(kForEver, 1));
  EXPECT_TRUE(thread->Terminate(0));
}

TEST_F(MTThreadTest, SeveralTerminatesAtOnceAllEnd) {
  constexpr int kRounds = 200;
  constexpr int kCallers = 3;
  for (int round = 0; round < kRounds; ++round) {
    CommandedBody body([&](MTThread*) { go_->Wait(kForEver, 1); });
    const std::unique_ptr<MTThread> thread = Start(&body);
    std::atomic<int> succeeded{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < kCallers; ++i) {
      callers.emplace_back([&] {
        if (thread->Terminate(kForEver)) ++succeeded;
      });
    }
    // All have passed the question whether there is a body; none finds the thread reaped.
    while (body.asked < kCallers) std::this_thread::yield();
    go_->Release(1);
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(kCallers, succeeded);
    EXPECT_FALSE(thread->IsTerminating());
  }
}

TEST_F(MTThreadTest, ABodyThatThrowsIsLoggedAndTerminateSucceeds) {
  const CommandedBody::Work kThrows[] = {[](MTThread*) { throw 5; },
                                         [](MTThread*) { throw "text"; },
                                         [](MTThread*) { throw std::runtime_error("text"); }};
  for (const CommandedBody::Work& work : kThrows) {
    TestMTInterface::Get().TakeDebugText();
    CommandedBody body(work);
    const std::unique_ptr<MTThread> thread = Start(&body);
    EXPECT_TRUE(thread->Terminate(kForEver));
    EXPECT_EQ("Unhandled Exception Running Thread\n", TestMTInterface::Get().TakeDebugText());
  }
}

TEST_F(MTThreadTest, AFinishedThreadThatWasNotReapedMayBeDeleted) {
  CommandedBody body([&](MTThread*) { there_->Release(1); });
  std::unique_ptr<MTThread> thread = Start(&body);
  EXPECT_TRUE(there_->Wait(kForEver, 1));
  thread.reset();
  EXPECT_EQ(1, body.asked);
}

TEST_F(MTThreadTest, DeletionAsksARunningBodyToFinish) {
  CommandedBody body(UntilTerminating());
  std::unique_ptr<MTThread> thread = Start(&body);
  thread.reset();
  EXPECT_EQ(1, body.asked);
}

TEST_F(MTThreadTest, DeletionOfAReapedThreadDoesNotTouchTheBody) {
  auto body = std::make_unique<CommandedBody>(UntilTerminating());
  const std::unique_ptr<MTThread> thread = Start(body.get());
  EXPECT_TRUE(thread->Terminate(kForEver));
  body.reset();
}

TEST_F(MTThreadTest, AThreadWithoutABodyEndsByItself) {
  const std::unique_ptr<MTThread> thread = Start(nullptr);
  EXPECT_FALSE(thread->Terminate(kForEver));
  EXPECT_FALSE(thread->IsTerminating());
}

// Many times, so that some begin when their object is gone.
TEST_F(MTThreadTest, AThreadWithoutABodyMayBeDeletedAtOnce) {
  const LiveCounts before = TestMTInterface::Get().GetLiveCounts();
  for (int i = 0; i < 300; ++i) Start(nullptr);
  EXPECT_EQ(before, TestMTInterface::Get().GetLiveCounts());
  std::this_thread::sleep_for(std::chrono::milliseconds{50});  // the last ones begin in this test
}

TEST_F(MTThreadTest, ABodyThatDoesNotOverrideTheRequestIsStoppedByItsFlag) {
  class Plain : public MTThreadBody {
    void ThreadMain(MTThread* thread) override { UntilTerminating()(thread); }
  };
  Plain body;
  const std::unique_ptr<MTThread> thread = Start(&body);
  EXPECT_TRUE(thread->Terminate(kForEver));
}

TEST_F(MTThreadTest, AThreadThatTerminatesItselfTimesOut) {
  bool result = true;
  CommandedBody body([&](MTThread* thread) { result = thread->Terminate(10); });
  const std::unique_ptr<MTThread> thread = Start(&body);
  EXPECT_TRUE(thread->Terminate(kForEver));
  EXPECT_FALSE(result);
}

TEST_F(MTThreadTest, AThreadThatCannotBeMadeLeavesNothing) {
  CommandedBody body(UntilTerminating());
  const LiveCounts before = TestMTInterface::Get().GetLiveCounts();
  // The thread itself, then its semaphore and its two flags.
  for (long ordinal = 1; ordinal <= 4; ++ordinal) {
    TestMTInterface::Get().FailCreation(ordinal, TestMTInterface::kThrow);
    EXPECT_THROW(Start(&body), std::bad_alloc) << ordinal;
    EXPECT_EQ(before, TestMTInterface::Get().GetLiveCounts()) << ordinal;
  }
  TestMTInterface::Get().FailCreation(0, TestMTInterface::kThrow);
  EXPECT_EQ(0, body.asked);
}

TEST_F(MTThreadTest, ManyThreadsRunAtOnce) {
  constexpr std::uint32_t kThreads = 50;
  CommandedBody body([&](MTThread* thread) {
    there_->Release(1);
    UntilTerminating()(thread);
  });
  std::vector<std::unique_ptr<MTThread>> threads;
  for (std::uint32_t i = 0; i < kThreads; ++i) threads.push_back(Start(&body));
  EXPECT_TRUE(there_->Wait(kForEver, kThreads));
  for (const auto& thread : threads) EXPECT_TRUE(thread->Terminate(kForEver));
}

}  // namespace
}  // namespace Orvane
