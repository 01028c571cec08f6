// The order in which commands run, what becomes of those that cannot finish yet, and who finishes
// which of them.
#include "Cache/CommandProcessor.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "MTInterface.h"
#include "MemorySource.h"
#include "OrvaneTest.h"

namespace Orvane {
namespace {

using Lines = std::vector<std::string>;

constexpr std::chrono::seconds kPatience{5};

// What happens, in order.
class Journal {
 public:
  void Note(const std::string& line) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
    changed_.notify_all();
  }
  bool WaitFor(const std::string& line) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] {
      return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
    });
  }
  Lines Get() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }
  std::size_t Count(const std::string& line) {
    const Lines lines = Get();
    return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), line));
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  Lines lines_;
};

class TestCommand : public CacheCommand {
 public:
  using Work = std::function<bool(TestCommand*)>;

  TestCommand(Journal* journal, std::string name, std::uint32_t dueTime, Work work = nullptr,
              CommandKind kind = kCommandRead, const CacheSource* source = nullptr)
      : CacheCommand(kind, dueTime, nullptr, source),
        journal_(journal),
        name_(std::move(name)),
        work_(std::move(work)) {}

  bool Execute() override {
    journal_->Note("run " + name_);
    return !work_ || work_(this);
  }
  void SetLastWork(std::function<void()> work) { lastWork_ = std::move(work); }
  void Finish(bool cancelled) override {
    if (lastWork_) lastWork_();
    Journal* const journal = journal_;
    const std::string line = (cancelled ? "cancel " : "end ") + name_;
    delete this;
    journal->Note(line);
  }

 private:
  Journal* const journal_;
  const std::string name_;
  const Work work_;
  std::function<void()> lastWork_;
};

// Terminates at a given question.
class AskedThread : public MTThread {
 public:
  AskedThread(MTThreadBody* body, int answersFalse)
      : MTThread(body, kPriorityNormal, kProcessorAny), answersFalse_(answersFalse) {
    ForgetBody();
  }
  bool IsTerminating() override { return answersFalse_-- <= 0; }

 private:
  int answersFalse_;
};

class CommandProcessorTest : public OrvaneTest {
 protected:
  static constexpr std::uint32_t kRead = kCommandRead;

  CommandProcessor* Make(std::vector<std::uint32_t> kinds = {kRead}) {
    processor_ = std::make_unique<CommandProcessor>(
        kinds.data(), kinds.size(), MTThread::kPriorityNormal, LockClass::kReadSection);
    return processor_.get();
  }
  void Add(const std::string& name, std::uint32_t dueTime, TestCommand::Work work = nullptr,
           CommandKind kind = kCommandRead, const CacheSource* source = nullptr) {
    processor_->Add(new TestCommand(&journal_, name, dueTime, std::move(work), kind, source));
  }
  // A command that runs until Open.
  TestCommand::Work Blocking() {
    return [this](TestCommand*) {
      gate_.get_future().wait();
      journal_.Note("went on");
      return true;
    };
  }
  void Open() { gate_.set_value(); }
  bool WaitForPass(std::uint64_t pass) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (processor_->GetPass() < pass) {
      if (std::chrono::steady_clock::now() > end) return false;
      MTInterface::Sleep(1);
    }
    return true;
  }
  void TearDown() override {
    processor_.reset();
    OrvaneTest::TearDown();
  }

  Journal journal_;
  std::promise<void> gate_;
  std::unique_ptr<CommandProcessor> processor_;
};

TEST_F(CommandProcessorTest, RunsTheCommandThatIsDueFirstFirst) {
  Make();
  processor_->Hold();
  Add("due 500", 500);
  Add("due 100", 100);
  processor_->Release();
  ASSERT_TRUE(journal_.WaitFor("end due 500"));
  EXPECT_EQ((Lines{"run due 100", "end due 100", "run due 500", "end due 500"}), journal_.Get());
}

TEST_F(CommandProcessorTest, AsSoonAsPossibleGoesBeforeEveryDueTimeAndEqualsAsTheyCame) {
  const std::uint32_t past = MTInterface::GetCurrentTimeMilli() - 5000;
  Make();
  processor_->Hold();
  Add("past", past);
  Add("asap", CacheSource::kDueASAP);
  Add("past again", past);
  Add("asap again", CacheSource::kDueASAP);
  processor_->Release();
  ASSERT_TRUE(journal_.WaitFor("end past again"));
  EXPECT_EQ((Lines{"run asap", "end asap", "run asap again", "end asap again", "run past",
                   "end past", "run past again", "end past again"}),
            journal_.Get());
}

TEST_F(CommandProcessorTest, DueTimesStayInOrderAcrossTheWrapOfTheClock) {
  constexpr std::uint32_t kHalf = 0x7FFFFFFF;
  const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
  Make();
  processor_->Hold();
  Add("far ahead", now + kHalf - 1000);
  Add("now", now == 0 ? 1 : now);
  processor_->Release();
  ASSERT_TRUE(journal_.WaitFor("end far ahead"));
  EXPECT_EQ((Lines{"run now", "end now", "run far ahead", "end far ahead"}), journal_.Get());
}

TEST_F(CommandProcessorTest, OneThatIsDueEarlierAndComesWhileOthersRunIsRunNext) {
  Make();
  processor_->Hold();
  Add("first", 100, [this](TestCommand*) {
    Add("late", 300);
    Add("urgent", 50);
    return true;
  });
  Add("second", 200);
  processor_->Release();
  ASSERT_TRUE(journal_.WaitFor("end late"));
  EXPECT_EQ((Lines{"run first", "end first", "run urgent", "end urgent", "run second", "end second",
                   "run late", "end late"}),
            journal_.Get());
}

TEST_F(CommandProcessorTest, KindsRunInTheOrderInWhichTheyWereGiven) {
  Make({kCommandReserved, kCommandRead});
  processor_->Hold();
  Add("read", 100);
  Add("reserved", 500, nullptr, kCommandReserved);
  processor_->Release();
  ASSERT_TRUE(journal_.WaitFor("end read"));
  EXPECT_EQ((Lines{"run reserved", "end reserved", "run read", "end read"}), journal_.Get());
}

TEST_F(CommandProcessorTest, AKindThatIsNotAcceptedIsNeverRunAndCancelledAtTheEnd) {
  Make();
  Add("copy", 1, nullptr, kCommandDispatchedCopy);
  Add("read", 2);
  ASSERT_TRUE(journal_.WaitFor("end read"));
  processor_.reset();
  EXPECT_EQ((Lines{"run read", "end read", "cancel copy"}), journal_.Get());
}

TEST_F(CommandProcessorTest, WithoutKindsEachWakeRunsTheFirstCommandOfAnyKind) {
  Make({});
  processor_->Hold();
  processor_->AddQuietly(new TestCommand(&journal_, "second", 500));
  processor_->AddQuietly(new TestCommand(&journal_, "first", 100, nullptr, kCommandDispatchedCopy));
  processor_->Release();
  EXPECT_TRUE(journal_.Get().empty());
  processor_->Wake();
  ASSERT_TRUE(journal_.WaitFor("end first"));
  ASSERT_TRUE(WaitForPass(1));
  EXPECT_EQ((Lines{"run first", "end first"}), journal_.Get());
  processor_->Wake();
  ASSERT_TRUE(journal_.WaitFor("end second"));
}

TEST_F(CommandProcessorTest, NoCommandOnlyWakes) {
  Make()->Add(nullptr);
  EXPECT_TRUE(WaitForPass(1));
  EXPECT_TRUE(journal_.Get().empty());
}

TEST_F(CommandProcessorTest, ACommandThatCannotFinishRunsAgainInTheNextPassNeverTwiceInOne) {
  std::vector<std::uint64_t> passes;
  Make();
  Add("waits", 100, [&passes](TestCommand* command) {
    passes.push_back(command->GetPass());
    return passes.size() == 5;
  });
  ASSERT_TRUE(journal_.WaitFor("end waits"));
  EXPECT_EQ(5u, journal_.Count("run waits"));
  ASSERT_EQ(5u, passes.size());
  EXPECT_LT(0u, passes[0]);
  for (std::size_t k = 1; k < passes.size(); ++k) EXPECT_LT(passes[k - 1], passes[k]);
}

TEST_F(CommandProcessorTest, DoesNotSpinWhileNothingGetsAnyFurther) {
  std::atomic<bool> isDone{false};
  Make();
  Add("waits", 100, [&isDone](TestCommand*) { return isDone.load(); });
  ASSERT_TRUE(WaitForPass(2));
  const auto start = std::chrono::steady_clock::now();
  const std::uint64_t before = processor_->GetPass();
  MTInterface::Sleep(200);
  const std::uint64_t passes = processor_->GetPass() - before;
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  // It goes on trying, at most once per millisecond.
  EXPECT_LT(0u, passes);
  EXPECT_GE(took.count() + 3, static_cast<double>(passes));
  isDone = true;
  EXPECT_TRUE(journal_.WaitFor("end waits"));
}

TEST_F(CommandProcessorTest, DoesNotSpinWhileManyWait) {
  constexpr int kWaiting = 50;
  std::atomic<bool> isDone{false};
  std::atomic<std::size_t> runs{0};
  Make();
  for (int k = 0; k < kWaiting; ++k) {
    Add("waits", 100, [&](TestCommand*) {
      ++runs;
      return isDone.load();
    });
  }
  // Each has to find out once, then only the first of them asks again.
  while (runs < kWaiting) MTInterface::Sleep(1);
  const auto start = std::chrono::steady_clock::now();
  const std::size_t before = runs;
  MTInterface::Sleep(100);
  const std::size_t ran = runs - before;
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took.count() + 3, static_cast<double>(ran));
  isDone = true;
  processor_->Wake();
  while (journal_.Count("end waits") < kWaiting) MTInterface::Sleep(1);
  EXPECT_EQ(0u, journal_.Count("cancel waits"));
}

TEST_F(CommandProcessorTest, RunsNoPassesWhileIdle) {
  Make();
  Add("only", 100);
  ASSERT_TRUE(journal_.WaitFor("end only"));
  MTInterface::Sleep(5);
  const std::uint64_t before = processor_->GetPass();
  processor_->WakeIfWaiting();
  MTInterface::Sleep(50);
  EXPECT_EQ(before, processor_->GetPass());
}

TEST_F(CommandProcessorTest, OfThoseThatWaitTheFirstDueGetsWhatIsFree) {
  std::atomic<int> free{0};
  const auto takesOne = [&free](TestCommand*) {
    if (free.load() == 0) return false;
    --free;
    return true;
  };
  Make();
  Add("due 500", 500, takesOne);
  ASSERT_TRUE(journal_.WaitFor("run due 500"));
  Add("due 100", 100, takesOne);
  ASSERT_TRUE(journal_.WaitFor("run due 100"));
  free = 1;
  processor_->WakeIfWaiting();
  ASSERT_TRUE(journal_.WaitFor("end due 100"));
  EXPECT_EQ(0u, journal_.Count("end due 500"));
  free = 1;
  processor_->WakeIfWaiting();
  ASSERT_TRUE(journal_.WaitFor("end due 500"));
}

// After four tries for nothing the next one succeeds: were it to go behind its equals each time,
// that would be the second of three.
TEST_F(CommandProcessorTest, EqualsThatWaitStayInTheOrderInWhichTheyCame) {
  Make();
  int tries = 0;
  const auto take = [&](TestCommand*) {
    ++tries;
    return tries > 4;
  };
  processor_->Hold();
  for (const char* name : {"a", "b", "c"}) Add(name, 0, take);
  processor_->Release();
  for (const char* end : {"end a", "end b", "end c"}) ASSERT_TRUE(journal_.WaitFor(end));
  Lines ends = journal_.Get();
  std::erase_if(ends, [](const std::string& line) { return !line.starts_with("end"); });
  EXPECT_EQ((Lines{"end a", "end b", "end c"}), ends);
}

// However long the first waits, what waits for something else is tried as often.
TEST_F(CommandProcessorTest, AnEqualThatWaitsForSomethingElseIsTriedInEachPass) {
  class WaitingFor : public TestCommand {
   public:
    WaitingFor(Journal* journal, std::string name, const void* resource, Work work)
        : TestCommand(journal, std::move(name), 0, std::move(work)), resource_(resource) {}
    const void* GetResource() const override { return resource_; }

   private:
    const void* const resource_;
  };
  Make();
  const char first = 0;
  const char other = 0;
  std::atomic<bool> isOver{false};
  std::vector<std::uint64_t> passes;
  processor_->Hold();
  processor_->Add(
      new WaitingFor(&journal_, "first", &first, [&](TestCommand*) { return isOver.load(); }));
  processor_->Add(new WaitingFor(&journal_, "other", &other, [&](TestCommand* command) {
    passes.push_back(command->GetPass());
    isOver = passes.size() == 40;
    return isOver.load();
  }));
  processor_->Release();
  ASSERT_TRUE(journal_.WaitFor("end first"));
  ASSERT_EQ(40u, passes.size());
  EXPECT_EQ(passes.front() + 39, passes.back());
}

TEST_F(CommandProcessorTest, OnesThatKeepComingDoNotKeepOneThatWaitsFromItsTurn) {
  std::atomic<bool> isFree{false};
  std::atomic<bool> isServed{false};
  std::size_t came = 0;
  Make();
  Add("waits", CacheSource::kDueASAP, [&](TestCommand*) {
    if (isFree) isServed = true;
    return isFree.load();
  });
  ASSERT_TRUE(journal_.WaitFor("run waits"));
  TestCommand::Work another = [&](TestCommand*) {
    isFree = true;
    if (!isServed && ++came < 100000) Add("comes", CacheSource::kDueASAP, another);
    return true;
  };
  Add("comes", CacheSource::kDueASAP, another);
  ASSERT_TRUE(journal_.WaitFor("end waits"));
  processor_.reset();
  EXPECT_GT(1000u, came);
}

TEST_F(CommandProcessorTest, RemovingForASourceCancelsItsCommandsAndNoOthers) {
  AutoRelease<MemorySource> mine(new MemorySource(""));
  AutoRelease<MemorySource> other(new MemorySource(""));
  Make();
  Add(
      "waits", 1, [](TestCommand*) { return false; }, kCommandRead, mine);
  ASSERT_TRUE(journal_.WaitFor("run waits"));
  processor_->Hold();
  Add("mine", 2, nullptr, kCommandRead, mine);
  Add("other", 3, nullptr, kCommandRead, other);
  CacheCommandFinder finder(mine);
  processor_->Remove(&finder);
  EXPECT_EQ(1u, journal_.Count("cancel waits"));
  EXPECT_EQ(1u, journal_.Count("cancel mine"));
  EXPECT_EQ(0u, journal_.Count("run mine"));
  processor_->Release();
  EXPECT_TRUE(journal_.WaitFor("end other"));
  EXPECT_TRUE(finder.Matches(nullptr, 0));
}

TEST_F(CommandProcessorTest, RemovingWaitsForTheRunningCommandAndSparesIt) {
  Make();
  Add("runs", 1, Blocking());
  ASSERT_TRUE(journal_.WaitFor("run runs"));
  Add("queued", 2);
  std::thread remover([this] {
    processor_->RemoveAll();
    journal_.Note("removed");
  });
  Open();
  remover.join();
  ASSERT_TRUE(journal_.WaitFor("end runs"));
  const Lines lines = journal_.Get();
  const auto place = [&lines](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line);
  };
  EXPECT_LT(place("went on"), place("removed"));
  EXPECT_EQ(0u, journal_.Count("cancel runs"));
}

TEST_F(CommandProcessorTest, HoldWaitsForTheRunningCommandAndLetsNoneStart) {
  Make();
  Add("runs", 1, Blocking());
  ASSERT_TRUE(journal_.WaitFor("run runs"));
  std::thread opener([this] { Open(); });
  processor_->Hold();
  EXPECT_EQ(1u, journal_.Count("went on"));
  Add("held off", 2);
  processor_->Wake();
  EXPECT_EQ(0u, journal_.Count("run held off"));
  processor_->Release();
  opener.join();
  EXPECT_TRUE(journal_.WaitFor("end held off"));
}

// What it fails must not slip past a cancel, which holds the processor.
TEST_F(CommandProcessorTest, HoldWaitsForTheEndOfACommandThatFailed) {
  Make();
  auto* const command = new TestCommand(
      &journal_, "throws", 1, [](TestCommand*) -> bool { throw std::runtime_error("test"); });
  command->SetLastWork([this] {
    journal_.Note("finishes");
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  });
  processor_->Add(command);
  ASSERT_TRUE(journal_.WaitFor("finishes"));
  processor_->Hold();
  EXPECT_EQ(1u, journal_.Count("cancel throws"));
  processor_->Release();
}

TEST_F(CommandProcessorTest, DestructionCancelsWhatIsQueuedAndWhatWaits) {
  Make();
  Add("waits", 1, [](TestCommand*) { return false; });
  ASSERT_TRUE(journal_.WaitFor("run waits"));
  processor_->Hold();
  Add("queued", 2, [](TestCommand*) { return false; });
  processor_->Release();
  processor_.reset();
  EXPECT_EQ(1u, journal_.Count("cancel waits"));
  EXPECT_EQ(1u, journal_.Count("cancel queued"));
  EXPECT_EQ(0u, journal_.Count("end waits") + journal_.Count("end queued"));
}

// A processor without a thread, because memory was short for its kinds.
std::unique_ptr<CommandProcessor> MakeWithoutThread() {
  for (std::size_t ordinal = 1; ordinal < 100; ++ordinal) {
    AllocationFailure failure(ordinal);
    try {
      auto processor = std::make_unique<CommandProcessor>(nullptr, 0, MTThread::kPriorityNormal,
                                                          LockClass::kReadSection);
      if (!processor->IsRunning()) return processor;
    } catch (const std::bad_alloc&) {
      continue;
    }
  }
  return nullptr;
}

TEST_F(CommandProcessorTest, WithoutMemoryForItsKindsItStartsNoThread) {
  const std::uint32_t kind = kCommandRead;
  bool happened = false;
  for (std::size_t ordinal = 1; ordinal < 100 && !happened; ++ordinal) {
    const long threads = TestMTInterface::Get().GetThreadsStarted();
    AllocationFailure failure(ordinal);
    try {
      CommandProcessor processor(&kind, 1, MTThread::kPriorityNormal, LockClass::kReadSection);
      happened = !processor.IsRunning();
      const long started = TestMTInterface::Get().GetThreadsStarted() - threads;
      EXPECT_EQ(happened ? 0 : 1, started);
    } catch (const std::bad_alloc&) {
      EXPECT_EQ(threads, TestMTInterface::Get().GetThreadsStarted());
    }
  }
  EXPECT_TRUE(happened);
}

TEST_F(CommandProcessorTest, ACommandPickedWhileTheThreadTerminatesIsCancelled) {
  processor_ = MakeWithoutThread();
  ASSERT_TRUE(processor_);
  // Asked before it waits, after it was woken, before it picks, and with the command in hand.
  AskedThread thread(processor_.get(), 3);
  Add("picked", 1);
  processor_->ThreadMain(&thread);
  EXPECT_EQ(Lines{"cancel picked"}, journal_.Get());
}

TEST_F(CommandProcessorTest, ACommandThatCannotFinishWhileTheThreadTerminatesIsCancelled) {
  processor_ = MakeWithoutThread();
  ASSERT_TRUE(processor_);
  AskedThread thread(processor_.get(), 4);
  Add("picked", 1, [](TestCommand*) { return false; });
  processor_->ThreadMain(&thread);
  EXPECT_EQ((Lines{"run picked", "cancel picked"}), journal_.Get());
}

TEST_F(CommandProcessorTest, ATerminatingThreadRunsNothing) {
  processor_ = MakeWithoutThread();
  ASSERT_TRUE(processor_);
  AskedThread thread(processor_.get(), 0);
  Add("queued", 1);
  processor_->ThreadMain(&thread);
  EXPECT_TRUE(journal_.Get().empty());
  EXPECT_EQ(0u, processor_->GetPass());
}

TEST_F(CommandProcessorTest, AnExceptionCancelsItsCommandAndTheOthersGoOn) {
  Make();
  Add("throws", 1, [](TestCommand*) -> bool { throw std::runtime_error("test"); });
  Add("next", 2);
  ASSERT_TRUE(journal_.WaitFor("end next"));
  EXPECT_EQ((Lines{"run throws", "cancel throws", "run next", "end next"}), journal_.Get());
  // The section was left.
  std::thread other([this] {
    processor_->Hold();
    processor_->Release();
  });
  other.join();
  EXPECT_NE(std::string::npos,
            TestMTInterface::Get().TakeDebugText().find("Unhandled Exception In Cache Command"));
}

// Of the calling thread: for a command, that of the place among those that wait.
void FailNextAllocation() {
  AllocationFailure::Arm(1);
}

TEST_F(CommandProcessorTest, ACommandForWhichThereIsNoMemoryToWaitIsCancelled) {
  Make();
  Add("waits", 1, [](TestCommand*) {
    FailNextAllocation();
    return false;
  });
  ASSERT_TRUE(journal_.WaitFor("cancel waits"));
  Add("next", 2);
  EXPECT_TRUE(journal_.WaitFor("end next"));
}

TEST_F(CommandProcessorTest, AConstructorThatThrowsLeavesNothingBehind) {
  TestMTInterface& mt = TestMTInterface::Get();
  const std::uint32_t kind = kCommandRead;
  const LiveCounts before = mt.GetLiveCounts();
  long failed = 0;
  for (bool isMade = false; !isMade;) {
    mt.FailCreation(failed + 1, TestMTInterface::kThrow);
    try {
      CommandProcessor processor(&kind, 1, MTThread::kPriorityNormal, LockClass::kReadSection);
      isMade = !mt.StopFailing();
      ASSERT_TRUE(isMade) << failed;
    } catch (const std::bad_alloc&) {
      ++failed;
      EXPECT_EQ(before, mt.GetLiveCounts()) << failed;
    }
  }
  EXPECT_LT(3, failed);
}

TEST_F(CommandProcessorTest, ManyQueuedCommandsInAnyOrderCostTheSameEach) {
  EXPECT_TRUE(GrowsLinearly(
      [this](std::size_t count) {
        std::vector<std::uint32_t> dueTimes(count);
        const std::uint32_t now = MTInterface::GetCurrentTimeMilli();
        for (std::size_t k = 0; k < count; ++k) {
          dueTimes[k] = now + static_cast<std::uint32_t>(k) + 1;
        }
        std::shuffle(dueTimes.begin(), dueTimes.end(), std::mt19937(1));
        std::atomic<std::size_t> left{count};
        std::uint32_t last = now;
        bool inOrder = true;
        Make();
        processor_->Hold();
        class Counting : public Command {
         public:
          Counting(std::uint32_t dueTime, std::function<void(std::uint32_t)> work)
              : Command(kCommandRead, dueTime), work_(std::move(work)) {}
          bool Execute() override {
            work_(GetDueTime());
            return true;
          }
          void Finish(bool) override { delete this; }

         private:
          const std::function<void(std::uint32_t)> work_;
        };
        for (const std::uint32_t dueTime : dueTimes) {
          processor_->Add(new Counting(dueTime, [&](std::uint32_t due) {
            inOrder = inOrder && due - last == 1;
            last = due;
            --left;
          }));
        }
        processor_->Release();
        while (left > 0) MTInterface::Sleep(1);
        processor_.reset();
        EXPECT_TRUE(inOrder);
      },
      100000));
}

TEST_F(CommandProcessorTest, TakesTheNextCommandForOneThatRuns) {
  class Named : public CommandFinder {
   public:
    explicit Named(std::uint32_t dueTime) : dueTime_(dueTime) {}
    bool Matches(Command* command, std::uint32_t) override {
      return command->GetDueTime() == dueTime_;
    }

   private:
    const std::uint32_t dueTime_;
  };
  Make();
  processor_->Hold();
  Add("first", 100, [this](TestCommand*) {
    // Only the very next one.
    Named third(300);
    EXPECT_EQ(nullptr, processor_->TakeNext(&third));
    Named second(200);
    Command* const next = processor_->TakeNext(&second);
    EXPECT_NE(nullptr, next);
    if (next) next->Finish(/*cancelled=*/false);
    return true;
  });
  Add("second", 200);
  Add("third", 300);
  processor_->Release();
  ASSERT_TRUE(journal_.WaitFor("end third"));
  EXPECT_EQ((Lines{"run first", "end second", "end first", "run third", "end third"}),
            journal_.Get());
}

}  // namespace
}  // namespace Orvane
