// Under the thread sanitizer: plain fields that threads share without an order are reported
// although one thread runs at a time, and what the simulated primitives order is not.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Orvane.h"
#include "OrvaneSimulator.h"
#include "OrvaneSimulatorNew.h"

namespace {
int reports = 0;
}  // namespace

// What the sanitizer calls. The reports are expected: they do not go where others do.
extern "C" void __tsan_on_report(void* report) {
  static_cast<void>(report);
  ++reports;
}
extern "C" const char* __tsan_default_options() {
  return "log_path=/dev/null exitcode=0 halt_on_error=0 suppress_equal_stacks=0 "
         "suppress_equal_addresses=0";
}

namespace Orvane {
namespace {

// What threads share: written at one place of the program only, so that one report would do.
struct Shared {
  int field = 0;
  std::unique_ptr<MTCritSec> lock{MTInterface::NewCritSec()};
  std::unique_ptr<MTSemaphore> semaphore{MTInterface::NewSemaphore(1, 0)};
  std::unique_ptr<MTAtomicUnsigned32> atomic{MTInterface::NewAtomicUnsigned32(0)};
};

using Work = void (*)(Shared& shared);

class Body : public MTThreadBody {
 public:
  Body(Shared& shared, Work work) : shared_(shared), work_(work) {}
  void ThreadMain(MTThread*) override { work_(shared_); }

 private:
  Shared& shared_;
  const Work work_;
};

class Thread {
 public:
  Thread(Shared& shared, Work work)
      : body_(shared, work),
        thread_(
            MTInterface::NewThread(&body_, MTThread::kPriorityNormal, MTThread::kProcessorAny)) {}
  ~Thread() { Join(); }
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  void Join() {
    if (thread_) thread_->Terminate(0xFFFFFFFF);
    thread_.reset();
  }

 private:
  Body body_;
  std::unique_ptr<MTThread> thread_;
};

// Reports about two threads of a few worlds.
int CountReports(SimulatedCarrier carrier, Work left, Work right, std::uint64_t worlds) {
  SimulationSetup setup;
  setup.carrier = carrier;
  reports = 0;
  const SimulationResult result = Simulator::Explore(setup, worlds, [left, right] {
    Shared shared;
    const Thread first(shared, left);
    const Thread second(shared, right);
  });
  EXPECT_TRUE(result.ok) << result.report;
  return reports;
}

class SimulatorRaceTest : public testing::TestWithParam<SimulatedCarrier> {};

INSTANTIATE_TEST_SUITE_P(Carriers, SimulatorRaceTest,
                         testing::Values(SimulatedCarrier::kFibers, SimulatedCarrier::kThreads),
                         [](const auto& test) {
                           return test.param == SimulatedCarrier::kFibers ? "Fibers" : "Threads";
                         });

TEST_P(SimulatorRaceTest, AFieldWithoutALockIsReported) {
  // One world is enough: it is not the schedule that has to go wrong.
  const Work add = [](Shared& shared) { ++shared.field; };
  EXPECT_GT(CountReports(GetParam(), add, add, 1), 0);
}

TEST_P(SimulatorRaceTest, AFieldThatOneOfTwoLocksIsReported) {
  const Work locked = [](Shared& shared) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    shared.lock->Enter();
    ++shared.field;
    shared.lock->Leave();
  };
  const Work plain = [](Shared& shared) { ++shared.field; };
  EXPECT_GT(CountReports(GetParam(), locked, plain, 20), 0);
}

TEST_P(SimulatorRaceTest, AnUnrelatedAtomicValueIsNoOrder) {
  const Work looks = [](Shared& shared) {
    ++shared.field;
    shared.atomic->Get();
  };
  EXPECT_GT(CountReports(GetParam(), looks, looks, 1), 0);
}

TEST_P(SimulatorRaceTest, ALockIsAnOrder) {
  const Work locked = [](Shared& shared) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    shared.lock->Enter();
    ++shared.field;
    shared.lock->Leave();
  };
  EXPECT_EQ(CountReports(GetParam(), locked, locked, 100), 0);
}

TEST_P(SimulatorRaceTest, ASemaphoreIsAnOrder) {
  const Work gives = [](Shared& shared) {
    ++shared.field;
    shared.semaphore->Release(1);
  };
  const Work takes = [](Shared& shared) {
    shared.semaphore->Wait(0xFFFFFFFF, 1);
    ++shared.field;
  };
  EXPECT_EQ(CountReports(GetParam(), gives, takes, 100), 0);
}

TEST_P(SimulatorRaceTest, AnAtomicValueIsAnOrder) {
  // Whoever comes second may touch it.
  const Work counts = [](Shared& shared) {
    if (shared.atomic->Get() == 0 && shared.atomic->CompareAndSwap(0, 1)) {
      ++shared.field;
      shared.atomic->Increment();
    } else if (shared.atomic->Get() == 2) {
      ++shared.field;
    }
  };
  EXPECT_EQ(CountReports(GetParam(), counts, counts, 100), 0);
}

TEST_P(SimulatorRaceTest, TheStartAndTheEndOfAThreadAreAnOrder) {
  SimulationSetup setup;
  setup.carrier = GetParam();
  reports = 0;
  const SimulationResult result = Simulator::Explore(setup, 100, [] {
    Shared shared;
    ++shared.field;
    Thread thread(shared, [](Shared& its) { ++its.field; });
    thread.Join();
    ++shared.field;
    // Of the application: a condition that has come about is an order, too.
    bool done = false;
    Simulator::Spawn([&shared, &done] {
      ++shared.field;
      const SimulatorAllocations::Exempt exempt;
      done = true;
    });
    Simulator::WaitUntil([&done] { return done; });
    ++shared.field;
  });
  EXPECT_TRUE(result.ok) << result.report;
  EXPECT_EQ(reports, 0);
}

TEST_P(SimulatorRaceTest, ARunThatFailedIsForgotten) {
  SimulationSetup setup;
  setup.carrier = GetParam();
  reports = 0;
  for (int run = 0; run < 50; ++run) {
    const SimulationResult failed = Simulator::Run(setup, [] {
      auto* const shared = new Shared;
      Simulator::Spawn([shared]() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
        shared->lock->Enter();
        Buffer* const buffer = PhysMemInterface::Allocate(4096);
        buffer->CopyInto(shared, sizeof *shared, 0, nullptr);
        Simulator::Fail("enough");
      });
      Simulator::Settle();
    });
    EXPECT_EQ(failed.failure, "enough");
  }
  EXPECT_EQ(reports, 0);
}

}  // namespace
}  // namespace Orvane

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  Orvane::Simulator::Install();
  return RUN_ALL_TESTS();
}
