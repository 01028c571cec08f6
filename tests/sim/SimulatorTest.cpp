// What a world finds wrong by itself: each failure is planted, and found with the right words.
#include <set>
#include <stdexcept>

#include "SimTestTools.h"

namespace Orvane {
namespace {

using SimulatorTest = SimulatorTestBase;

std::unique_ptr<MTCritSec> NewLock(LockClass lockClass = LockClass::kOther) {
  return std::unique_ptr<MTCritSec>(NewCritSec(lockClass));
}

// A run whose threads wait for each other has to come to that; PlainSetup and a few seeds.
SimulationResult FirstFailure(const std::function<void()>& scenario) {
  return Simulator::Explore(PlainSetup(), 200, scenario);
}

TEST_F(SimulatorTest, TwoLocksInOppositeOrderStandStill) {
  const auto scenario = [] {
    const auto left = NewLock();
    const auto right = NewLock();
    RunTogether({[&] {
                   EnterLock(*left);
                   EnterLock(*right);
                   LeaveLock(*right);
                   LeaveLock(*left);
                 },
                 [&] {
                   EnterLock(*right);
                   EnterLock(*left);
                   LeaveLock(*left);
                   LeaveLock(*right);
                 }});
  };
  const SimulationResult found = FirstFailure(scenario);
  ASSERT_FALSE(found.ok);
  EXPECT_LT(found.runs, 200u);
  const SimulationResult result =
      ExpectFailure(PlainSetup(found.seed), "nobody can go on", scenario);
  // Who waits, for what, where who is, and what he holds himself.
  const std::size_t first = result.report.find("waits for lock");
  ASSERT_NE(first, std::string::npos) << result.report;
  EXPECT_NE(result.report.find("waits for lock", first + 1), std::string::npos);
  ExpectInReport(result, "(other), where thread 2 is; inside lock");
  ExpectInReport(result, "(other), where thread 3 is; inside lock");
  ExpectInReport(result, "a condition of the application");
}

TEST_F(SimulatorTest, ALostWakeUpStandsStill) {
  // The waiter looks, and is asleep only after the waker has looked for sleepers.
  const auto scenario = [] {
    const auto wake = NewSimSemaphore();
    const auto sleeps = NewSimAtomic();
    const auto ready = NewSimAtomic();
    RunTogether({[&] {
                   if (ready->Get() != 0) return;
                   sleeps->Increment();
                   wake->Wait(kForEver, 1);
                 },
                 [&] {
                   ready->Increment();
                   if (sleeps->Get() != 0) wake->Release(1);
                 }});
  };
  const SimulationResult found = FirstFailure(scenario);
  ASSERT_FALSE(found.ok);
  const SimulationResult result =
      ExpectFailure(PlainSetup(found.seed), "nobody can go on", scenario);
  ExpectInReport(result, "waits for semaphore");
  ExpectInReport(result, "seed " + std::to_string(found.seed));
}

TEST_F(SimulatorTest, AClassIsEnteredInOneOrderInAllRuns) {
  // Two classes that the simulated host's own code never holds together.
  const auto enterBoth = [](LockClass outer, LockClass inner) {
    return [outer, inner] {
      const auto first = NewLock(outer);
      const auto second = NewLock(inner);
      EnterLock(*first);
      EnterLock(*second);
      LeaveLock(*second);
      LeaveLock(*first);
    };
  };
  ExpectGood(
      Simulator::Run(PlainSetup(), enterBoth(LockClass::kPortQueue, LockClass::kStatistics)));
  EXPECT_NE(Simulator::GetLockOrder().find("port queue -> statistics\n"), std::string::npos);
  ExpectFailure(PlainSetup(), "(port queue) is entered inside lock",
                enterBoth(LockClass::kStatistics, LockClass::kPortQueue));
  ExpectFailure(PlainSetup(), "elsewhere it is the outer one",
                enterBoth(LockClass::kStatistics, LockClass::kPortQueue));
  ExpectFailure(PlainSetup(), "which is of the same class",
                enterBoth(LockClass::kPortQueue, LockClass::kPortQueue));
  // Those of the application have no class, and one lock may be entered again.
  ExpectGood(Simulator::Run(PlainSetup(), enterBoth(LockClass::kOther, LockClass::kOther)));
  ExpectGood(Simulator::Run(PlainSetup(), [] {
    const auto lock = NewLock(LockClass::kPortQueue);
    EnterLock(*lock);
    EnterLock(*lock);
    LeaveLock(*lock);
    LeaveLock(*lock);
  }));
}

TEST_F(SimulatorTest, PollingWithoutAnEventIsFound) {
  const SimulationResult result =
      ExpectFailure(PlainSetup(), "the scenario is polling: 20000 steps without an event", [] {
        const auto never = NewSimAtomic();
        while (never->Get() == 0) {
        }
      });
  EXPECT_LT(result.steps, 30000u);
}

TEST_F(SimulatorTest, PollingWithATimeIsNone) {
  ExpectGood(Simulator::Run(PlainSetup(), [] {
    const auto flag = NewSimAtomic();
    Simulator::Spawn([&flag] {
      MTInterface::Sleep(60000);
      flag->Increment();
    });
    while (flag->Get() == 0) MTInterface::Sleep(1);
    Simulator::Settle();
  }));
}

TEST_F(SimulatorTest, AThreadLeftOverIsFound) {
  const SimulationResult result =
      ExpectFailure(PlainSetup(), "threads are left over that nobody ends", [] {
        Simulator::Spawn([] {
          const auto never = NewSimSemaphore();
          never->Wait(kForEver, 1);
        });
      });
  ExpectInReport(result, "(a thread of the application, priority 0) waits for semaphore");
}

TEST_F(SimulatorTest, PrimitivesLeftOverAreFound) {
  const SimulationResult result = ExpectFailure(PlainSetup(), "3 primitives are left over", [] {
    static_cast<void>(NewLock().release());
    static_cast<void>(NewSimAtomic().release());
    static_cast<void>(NewSimSemaphore().release());
  });
  for (const char* const kind : {"lock ", "atomic value ", "semaphore "}) {
    ExpectInReport(result, std::string("  ") + kind);
  }
  ExpectInReport(result, "made by thread 0 at step");
}

TEST_F(SimulatorTest, WhatASpawnedThreadHoldsEndsWithIt) {
  ExpectGood(Simulator::Run(PlainSetup(), [] {
    const std::shared_ptr<MTSemaphore> shared = NewSimSemaphore();
    Simulator::Spawn([shared] { shared->Wait(kForEver, 1); });
    shared->Release(1);
  }));
}

TEST_F(SimulatorTest, WhatAnAbandonedThreadHoldsIsLeftAlone) {
  // Destroyed outside of the run, the lock would be one that somebody is inside of.
  ExpectFailure(PlainSetup(), "enough", [] {
    const std::shared_ptr<MTCritSec> shared = NewLock();
    Simulator::Spawn([shared] {
      EnterLock(*shared);
      Simulator::Fail("enough");
    });
    Simulator::Settle();
  });
}

TEST_F(SimulatorTest, UseOfADestroyedPrimitiveIsFound) {
  ExpectFailure(PlainSetup(), "a destroyed lock is entered", [] {
    MTCritSec* const lock = NewLock().release();
    delete lock;
    EnterLock(*lock);
  });
  ExpectFailure(PlainSetup(), "a destroyed lock is left", [] {
    MTCritSec* const lock = NewLock().release();
    delete lock;
    LeaveLock(*lock);
  });
  ExpectFailure(PlainSetup(), "a destroyed semaphore is waited for", [] {
    MTSemaphore* const semaphore = NewSimSemaphore().release();
    delete semaphore;
    semaphore->Wait(1, 1);
  });
  ExpectFailure(PlainSetup(), "a destroyed semaphore is released", [] {
    MTSemaphore* const semaphore = NewSimSemaphore().release();
    delete semaphore;
    semaphore->Release(1);
  });
  ExpectFailure(PlainSetup(), "a destroyed atomic value is used", [] {
    MTAtomicUnsigned32* const value = NewSimAtomic().release();
    delete value;
    value->Increment();
  });
  ExpectFailure(PlainSetup(), "a destroyed atomic value is used", [] {
    MTAtomicUnsigned64* const value = MTInterface::NewAtomicUnsigned64(0);
    delete value;
    value->Get();
  });
}

TEST_F(SimulatorTest, DestroyingAPrimitiveInUseIsFound) {
  ExpectFailure(PlainSetup(), "(other) is destroyed while it is used", [] {
    const auto lock = NewLock();
    EnterLock(*lock);
  });
  ExpectFailure(PlainSetup(), "is destroyed while a thread waits", [] {
    auto semaphore = NewSimSemaphore();
    Simulator::Spawn([&semaphore] { semaphore->Wait(kForEver, 1); });
    Simulator::Settle();
    semaphore.reset();
  });
  // Before the call, or between the call and what it does.
  std::set<std::string> failures;
  for (std::uint64_t seed = 1; seed <= 50; ++seed) {
    const SimulationResult result = Simulator::Run(PlainSetup(seed), [] {
      MTAtomicUnsigned32* const value = NewSimAtomic().release();
      RunTogether({[value] { value->Increment(); }, [value] { delete value; }});
    });
    failures.insert(result.failure.substr(0, result.failure.find(" is ")));
  }
  EXPECT_EQ(failures.size(), 3u);
  EXPECT_EQ(failures.count(""), 1u);
  EXPECT_EQ(failures.count("a destroyed atomic value"), 1u);
}

TEST_F(SimulatorTest, LeavingALockFromOutsideIsFound) {
  ExpectFailure(PlainSetup(), "is left by a thread that is not inside", [] {
    const auto lock = NewLock();
    LeaveLock(*lock);
  });
}

TEST_F(SimulatorTest, MemoryGivenBackBesideTheDeviceIsFound) {
  ExpectFailure(PlainSetup(), "although their memory was given back", [] {
    SimulatedFiles::Create("file", SimContent(kSimPage));
    NativeFileSource* const file = NativeFileSysInterface::NewNativeFileSource("file");
    file->Open(true, false, false);
    Buffer* const pages = PhysMemInterface::Allocate(kSimPage);
    // Does not keep the pages alive, as the library would.
    auto* const window = new HostBuffer(pages->GetAddress(), kSimPage);
    auto* const list = new BufferList(window, /*adoptReference=*/true, /*capacity=*/1);
    SimulatedFiles::SetHanging("file", true);
    file->ReadAsyncWithList(0, list, nullptr, CacheSource::kDueASAP);
    Simulator::Settle();
    ReleaseObject(pages);
    SimulatedFiles::SetHanging("file", false);
    Simulator::Settle();
  });
}

TEST_F(SimulatorTest, ExceptionsAreFound) {
  ExpectFailure(PlainSetup(), "an exception escapes from the scenario: out of the way",
                [] { throw std::runtime_error("out of the way"); });
  ExpectFailure(PlainSetup(), "an exception escapes from the scenario: a text",
                [] { throw "a text"; });
  ExpectFailure(PlainSetup(), "an exception escapes from a thread of the application", [] {
    Simulator::Spawn([] { throw 1; });
    Simulator::Settle();
  });
}

TEST_F(SimulatorTest, ARunWithoutEndIsFound) {
  SimulationSetup setup = PlainSetup();
  setup.maxSteps = 5000;
  ExpectFailure(setup, "no end in 5000 steps", [] {
    const auto semaphore = NewSimSemaphore();
    while (semaphore->Release(1)) semaphore->Wait(kForEver, 1);
  });
  setup = PlainSetup();
  setup.maxSeconds = 100;
  const SimulationResult result = ExpectFailure(setup, "no end in 100 seconds of its time", [] {
    for (;;) MTInterface::Sleep(1000);
  });
  EXPECT_GT(result.micros, 100000000u);
  EXPECT_LT(result.steps, 5000u);
}

TEST_F(SimulatorTest, TheScenarioCanFail) {
  const SimulationResult result = ExpectFailure(PlainSetup(7), "not what it should be", [] {
    Simulator::Note("at the beginning");
    Simulator::Step();
    Simulator::Fail("not what it should be");
  });
  EXPECT_EQ(result.failure, "not what it should be");
  EXPECT_EQ(result.seed, 7u);
  ExpectInReport(result, "seed 7");
  ExpectInReport(result, "step of a caller");
}

TEST_F(SimulatorTest, ARunAfterOneThatFailedIsAsNew) {
  const auto good = [] {
    const auto lock = NewLock();
    EnterLock(*lock);
    MTInterface::Sleep(5);
    LeaveLock(*lock);
  };
  const SimulationResult before = Simulator::Run(PlainSetup(), good);
  ExpectGood(before);
  for (int run = 0; run < 20; ++run) {
    // In the middle of a sleep, of a request, of a cache, with a thread and a lock.
    const SimulationResult failed = Simulator::Run(PlainSetup(), [] {
      static_cast<void>(NewSimCache(kSimPage, 2));
      static_cast<void>(NativeFileSysInterface::NewNativeFileSource("none"));
      const auto lock = NewLock();
      EnterLock(*lock);
      Simulator::Spawn([&lock] { EnterLock(*lock); });
      Simulator::Spawn([] {
        MTInterface::Sleep(3);
        Simulator::Fail("in the middle");
      });
      MTInterface::Sleep(5);
      LeaveLock(*lock);
    });
    ASSERT_FALSE(failed.ok);
    EXPECT_EQ(failed.failure, "in the middle");
    const SimulationResult after = Simulator::Run(PlainSetup(), good);
    ExpectGood(after);
    EXPECT_EQ(after.traceHash, before.traceHash);
  }
}

TEST_F(SimulatorTest, OutsideOfARunTimeStandsStill) {
  EXPECT_FALSE(Simulator::IsRunning());
  EXPECT_EQ(MTInterface::GetCurrentTimeMicro(), 0u);
  const auto semaphore = NewSimSemaphore();
  EXPECT_FALSE(semaphore->Wait(1000, 1));
  semaphore->Release(1);
  EXPECT_TRUE(semaphore->Wait(kForEver, 1));
  const auto lock = NewLock();
  EnterLock(*lock);
  LeaveLock(*lock);
  bool inside = false;
  ExpectGood(Simulator::Run(PlainSetup(), [&inside] { inside = Simulator::IsRunning(); }));
  EXPECT_TRUE(inside);
}

}  // namespace
}  // namespace Orvane
