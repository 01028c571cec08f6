// One run: its threads, its time, its choices, and what it finds wrong by itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "OSServices/Sim/SimCarrier.h"
#include "OSServices/Sim/SimPolicy.h"
#include "OSServices/Sim/SimRandom.h"
#include "OSServices/Sim/SimSanitizers.h"
#include "OSServices/Sim/SimThread.h"
#include "OSServices/Sim/SimTrace.h"
#include "OrvaneSimulator.h"

namespace Orvane {

class SimDevice;

// One at a time is current. All but its construction and Run happens on the threads of the world,
// of which one at a time has control, so nothing here is locked.
//
// Every operation of a simulated primitive, of the clock, the memory and the files calls Step
// first: there another thread may be chosen to go on. A thread that cannot go on calls Wait. When
// nobody can go on and no transfer can end, time moves to the next moment at which somebody can; if
// there is none, the run has ended, or has failed.
class SimWorld {
 public:
  enum class Primitive : std::uint8_t { kLock, kSemaphore, kAtomic };

  // `policy` overrules that of the setup unless null.
  SimWorld(const SimulationSetup& setup, std::unique_ptr<SimPolicy> policy, SimCarrier* carrier);
  ~SimWorld();
  SimWorld(const SimWorld&) = delete;
  SimWorld& operator=(const SimWorld&) = delete;

  // Null outside of a run.
  static SimWorld* Current() { return current; }
  // What a carrier runs on each thread.
  static void ThreadEntry(SimThread* thread);

  SimulationResult Run(std::function<void()> firstThread);

  // Threads.
  SimThread* Running() const { return running_; }
  SimThread* StartThread(std::string name, MTThread::MTPriority priority,
                         std::function<void()> main);
  void Step(SimEvent event, std::uint64_t object, std::uint64_t value = 0);
  // An entry of the trace without a choice.
  void Record(SimEvent event, std::uint64_t object, std::uint64_t value = 0);
  // Something has changed: nobody is merely polling.
  void Progress() { lastProgress_ = step_; }
  // False if the deadline, in microseconds, has passed; by lot, if it has but the wait is over,
  // too.
  bool Wait(SimWaitable* waitable, std::uint64_t deadline);
  // Until no other thread can go on and no transfer can end, however much time passes. One thread
  // at a time.
  void WaitForQuiet();
  // What all threads have done so far has happened for the one that runs.
  void ObserveAll();
  [[noreturn]] void Fail(const std::string& text);
  void Note(const std::string& text);

  // Time.
  std::uint64_t Now() const { return micro_; }
  std::uint64_t DeadlineIn(std::uint32_t timeoutMs) const;

  // Faults. True: the call is to fail. Counts it.
  bool DrawFault(unsigned chance);
  bool DrawAllocationFault();
  // By chance only: a device that lies. Not counted.
  bool DrawLie(unsigned chance);
  void StopFaults();
  void VaryOrder(bool varied) { orderIsVaried_ = varied; }
  void StartFaults() { faultsOn_ = true; }

  // Primitives.
  std::uint64_t OnMade(Primitive primitive);
  void OnDestroyed(std::uint64_t object);
  // True also for one that was made outside of the world: 0.
  bool IsThere(std::uint64_t object) const {
    return object == 0 || live_[static_cast<std::size_t>(object - 1)].isThere;
  }

  const SimulationSetup& Setup() const { return setup_; }
  SimDevice& Device() { return *device_; }
  std::uint64_t CallersRandom(std::uint64_t limit) {
    if (nextOfCallers_ == setup_.firstRandoms.size()) return callersRandom_.Below(limit);
    return setup_.firstRandoms[nextOfCallers_++] % limit;
  }
  SimRandom& DeviceRandom() { return deviceRandom_; }
  std::uint64_t GetStep() const { return step_; }
  std::uint64_t GetFaults() const { return faults_; }
  std::string& DebugText() { return debugText_; }

 private:
  void SwitchTo(SimThread* next);
  void Abandon(SimThread* thread);
  void EndThread();
  SimThread* ChooseNext();
  void Collect(SimCandidates* candidates);
  bool MoveTime();
  void JumpNowAndThen();
  void SetTime(std::uint64_t micro);
  void NobodyCanGoOn();
  void CheckLimits();
  void CheckLeftovers();
  std::string ThreadsToText() const;
  std::string MakeReport() const;

  // What WaitForQuiet waits for.
  class Quiet final : public SimWaitable {
   public:
    bool IsReadyFor(const SimThread&) const override { return isThere; }
    std::string Describe() const override { return "everybody else to have nothing to do"; }
    bool isThere = false;
    bool isAwaited = false;
  };

  static SimWorld* current;

  const SimulationSetup setup_;
  SimulatedPolicy policyKind_;
  const std::unique_ptr<SimPolicy> policy_;
  SimCarrier* const carrier_;
  SimRandom timeRandom_;
  SimRandom faultRandom_;
  SimRandom callersRandom_;
  std::size_t nextOfCallers_ = 0;
  SimRandom deviceRandom_;
  const std::unique_ptr<SimDevice> device_;

  std::vector<std::unique_ptr<SimThread>> threads_;
  std::size_t finishedThreads_ = 0;
  SimThread* running_ = nullptr;
  std::uint64_t step_ = 0;
  std::uint64_t lastProgress_ = 0;
  std::uint64_t startMicro_ = 0;
  std::uint64_t micro_ = 0;
  std::uint64_t nextJump_ = 0;  // step; 0: none

  Quiet quiet_;

  bool faultsOn_ = false;
  bool orderIsVaried_ = true;
  std::uint64_t hostCalls_ = 0;
  std::uint64_t allocations_ = 0;
  std::uint64_t faults_ = 0;

  struct Live {
    std::uint64_t madeAt;
    std::uint32_t madeBy;
    Primitive primitive;
    bool isThere;
  };
  std::vector<Live> live_;  // number 1 first
  std::size_t liveCount_ = 0;

  bool failed_ = false;
  std::string failure_;
  std::string report_;
  std::string debugText_;
  SimTrace trace_;
  std::vector<std::pair<std::uint64_t, std::uint32_t>> switches_;
};

// The calling thread is in the simulator's own code: its allocations are nobody's business, and
// what it shares is safe because one thread runs at a time.
class SimInside {
 public:
  SimInside() : thread_(SimWorld::Current() ? SimWorld::Current()->Running() : nullptr) {
    SimIgnoreBegin();
    if (thread_) ++thread_->depthInside;
  }
  ~SimInside() {
    if (thread_) --thread_->depthInside;
    SimIgnoreEnd();
  }
  SimInside(const SimInside&) = delete;
  SimInside& operator=(const SimInside&) = delete;

 private:
  SimThread* const thread_;
};

}  // namespace Orvane
