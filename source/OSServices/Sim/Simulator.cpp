#include <algorithm>
#include <memory>
#include <utility>

#include "Cache/CacheReaper.h"
#include "OSServices.h"
#include "OSServices/AsyncHandler.h"
#include "OSServices/Sim/HostSim.h"
#include "OSServices/Sim/MTPrimitivesSim.h"
#include "OSServices/Sim/SimArena.h"
#include "OSServices/Sim/SimDevice.h"
#include "OSServices/Sim/SimLockOrder.h"
#include "OSServices/Sim/SimPages.h"
#include "OSServices/Sim/SimPolicy.h"
#include "OSServices/Sim/SimWorld.h"
#include "OrvaneSimulator.h"

namespace Orvane {
namespace {

using Switches = std::vector<std::pair<std::uint64_t, std::uint32_t>>;

SimCarrier* GetCarrier(SimulatedCarrier kind) {
  static const std::unique_ptr<SimCarrier> fibers = NewSimFiberCarrier(&SimWorld::ThreadEntry);
  static const std::unique_ptr<SimCarrier> threads = NewSimThreadCarrier(&SimWorld::ThreadEntry);
  return kind == SimulatedCarrier::kFibers ? fibers.get() : threads.get();
}

void RunFirstThread(SimWorld* world, const std::function<void()>& scenario) {
  NativeFileSysInterfaceImpSim::StartHandler();
  world->StartFaults();
  scenario();
  world->StopFaults();
  // What the scenario started may still be on its way to its end.
  Simulator::Settle();
  CacheReaper::Stop();
  NativeFileSysInterfaceImpSim::StopHandler();
}

SimulationResult RunWorld(const SimulationSetup& setup, std::unique_ptr<SimPolicy> policy,
                          const std::function<void()>& scenario) {
  if (SimWorld* const outer = SimWorld::Current()) outer->Fail("a run is started inside of a run");
  const SimIgnoring ignoring;
  SimArena::Reset();
  SimPages::Reset();
  SimPrimitive::RenewAll();
  SimWorld world(setup, std::move(policy), GetCarrier(setup.carrier));
  SimulationResult result = world.Run([&] { RunFirstThread(&world, scenario); });
  if (!result.ok) {
    NativeFileSysInterfaceImpSim::ForgetHandler();
    SimPrimitive::RenewAll();
    CacheReaper::Abandon();
  }
  return result;
}

SimWorld& World() {
  return *SimWorld::Current();
}

class Condition final : public SimWaitable {
 public:
  explicit Condition(const std::function<bool()>* condition) : condition_(condition) {}
  bool IsReadyFor(const SimThread&) const override { return (*condition_)(); }
  std::string Describe() const override { return "a condition of the application"; }

 private:
  const std::function<bool()>* const condition_;
};

SimulationSetup ReplayOf(const SimulationSetup& setup, const Switches& switches) {
  SimulationSetup replay = setup;
  replay.policy = SimulatedPolicy::kReplay;
  replay.switches = switches;
  replay.recordSwitches = false;
  return replay;
}

Switches Without(const Switches& switches, std::size_t first, std::size_t count) {
  Switches rest(switches.begin(), switches.begin() + static_cast<std::ptrdiff_t>(first));
  const std::size_t end = std::min(first + count, switches.size());
  rest.insert(rest.end(), switches.begin() + static_cast<std::ptrdiff_t>(end), switches.end());
  return rest;
}

// Those that a number calls for.
SimulatedFaults OnlyCounted(const SimulatedFaults& faults) {
  SimulatedFaults counted;
  counted.failCall = faults.failCall;
  counted.failAllocationCall = faults.failAllocationCall;
  counted.andAllLater = faults.andAllLater;
  return counted;
}

// Whether two runs have failed of the same: places and numbers may differ.
bool FailAlike(const SimulationResult& left, const SimulationResult& right) {
  const auto textOf = [](const SimulationResult& result) {
    std::string text = result.failure;
    std::erase_if(text, [](char letter) { return letter >= '0' && letter <= '9'; });
    return text;
  };
  return !left.ok && !right.ok && textOf(left) == textOf(right);
}

}  // namespace

void Simulator::Install() {
  OSServices::InitWithExtensions(new MTInterfaceImpSim, new PhysMemInterfaceImpSim,
                                 new NativeFileSysInterfaceImpSim);
  // Made once per process, so that it belongs to no world.
  CacheReaper::Stop();
}

SimulationResult Simulator::Run(const SimulationSetup& setup,
                                const std::function<void()>& scenario) {
  return RunWorld(setup, nullptr, scenario);
}

SimulationResult Simulator::Explore(const SimulationSetup& setup, std::uint64_t runs,
                                    const std::function<void()>& scenario) {
  SimulationResult total;
  total.runs = 0;
  SimulationSetup next = setup;
  for (std::uint64_t run = 0; run < runs; ++run, ++next.seed) {
    const std::uint64_t steps = total.steps;
    const std::uint64_t faults = total.faults;
    total = Run(next, scenario);
    total.runs = run + 1;
    total.steps += steps;
    total.faults += faults;
    if (!total.ok) break;
  }
  return total;
}

SimulationResult Simulator::ExploreAll(const SimulationSetup& setup, unsigned preemptions,
                                       std::uint64_t maxRuns,
                                       const std::function<void()>& scenario) {
  SimulationSetup fixed = setup;
  fixed.timeJumps = false;
  fixed.faults = OnlyCounted(setup.faults);
  fixed.policy = SimulatedPolicy::kReplay;  // of the search
  std::vector<SimSearchPolicy::Choice> choices;
  SimulationResult result;
  std::uint64_t runs = 0;
  do {
    result = RunWorld(fixed, std::make_unique<SimSearchPolicy>(&choices, preemptions), scenario);
    result.runs = ++runs;
  } while (result.ok && runs < maxRuns && SimSearchPolicy::Advance(&choices));
  return result;
}

SimulationResult Simulator::Minimise(const SimulationSetup& setup,
                                     const std::function<void()>& scenario) {
  SimulationSetup recording = setup;
  recording.recordSwitches = true;
  SimulationResult best = Run(recording, scenario);
  if (best.ok) return best;
  Switches switches = best.switches;
  for (std::size_t part = std::max<std::size_t>(switches.size() / 2, 1);;) {
    bool removed = false;
    for (std::size_t first = 0; first < switches.size();) {
      const Switches fewer = Without(switches, first, part);
      const SimulationResult result = Run(ReplayOf(setup, fewer), scenario);
      if (!FailAlike(result, best)) {
        first += part;
        continue;
      }
      best = result;
      switches = fewer;
      removed = true;
    }
    if (part > 1) {
      part /= 2;
    } else if (!removed) {
      break;
    }
  }
  best.switches = switches;
  return best;
}

bool Simulator::IsRunning() {
  return SimWorld::Current() != nullptr;
}

void Simulator::Fail(const std::string& text) {
  World().Fail(text);
}

void Simulator::Step() {
  const SimInside inside;
  World().Step(SimEvent::kCallersStep, 0);
}

void Simulator::Spawn(std::function<void()> main) {
  const SimInside inside;
  World().StartThread("a thread of the application", MTThread::kPriorityNormal, std::move(main));
}

void Simulator::WaitUntil(const std::function<bool()>& condition) {
  const SimInside inside;
  Condition waitable(&condition);
  while (!condition()) World().Wait(&waitable, kSimNever);
  World().ObserveAll();
}

void Simulator::Settle() {
  const SimInside inside;
  World().WaitForQuiet();
}

bool Simulator::IsTracing() {
  return World().Setup().printTrace;
}

void Simulator::Note(const std::string& text) {
  const SimInside inside;
  World().Note(text);
}

void Simulator::VaryOrder(bool varied) {
  const SimInside inside;
  World().VaryOrder(varied);
}

std::uint64_t Simulator::Random(std::uint64_t limit) {
  return World().CallersRandom(limit);
}

void Simulator::StopFaults() {
  const SimInside inside;
  World().StopFaults();
}

std::string Simulator::TakeDebugText() {
  const SimInside inside;
  return std::exchange(World().DebugText(), {});
}

std::uint64_t Simulator::GetFaults() {
  return World().GetFaults();
}

std::uint64_t Simulator::GetTimeMicro() {
  return World().Now();
}

std::uint64_t Simulator::GetStep() {
  return World().GetStep();
}

std::uint64_t Simulator::GetOpenRequests() {
  return NativeFileSysInterfaceImpSim::GetHandler()->GetNumberOfSlotsInUse();
}

std::string Simulator::GetLockOrder() {
  return SimLockOrder::ToText();
}

void SimulatedFiles::Create(const std::string& name, std::vector<unsigned char> content) {
  const SimInside inside;
  World().Device().Create(name, std::move(content));
}

bool SimulatedFiles::Exists(const std::string& name) {
  return World().Device().Find(name) != nullptr;
}

std::vector<unsigned char> SimulatedFiles::Read(const std::string& name) {
  const SimInside inside;
  const std::shared_ptr<SimFile> file = World().Device().Find(name);
  return file ? file->bytes : std::vector<unsigned char>();
}

void SimulatedFiles::Resize(const std::string& name, std::uint64_t size) {
  const SimInside inside;
  if (const auto file = World().Device().Find(name)) file->bytes.resize(size);
}

void SimulatedFiles::SetBuffered(const std::string& name, bool buffered) {
  if (const auto file = World().Device().Find(name)) file->buffered = buffered;
}

void SimulatedFiles::SetCapacity(std::uint64_t bytes) {
  World().Device().SetCapacity(bytes);
}

void SimulatedFiles::SetLatency(std::uint64_t micros) {
  World().Device().SetLatency(micros);
}

void SimulatedFiles::SetHanging(const std::string& name, bool hanging) {
  if (const auto file = World().Device().Find(name)) file->hanging = hanging;
}

std::uint64_t SimulatedFiles::GetLostWrites() {
  return World().Device().GetLostWrites();
}

std::uint64_t SimulatedFiles::GetShortTransfers() {
  return World().Device().GetShortTransfers();
}

SimulatorAllocations::Exempt::Exempt() {
  SimWorld* const world = SimWorld::Current();
  if (world) ++world->Running()->depthInside;
  SimIgnoreBegin();
}

SimulatorAllocations::Exempt::~Exempt() {
  SimIgnoreEnd();
  SimWorld* const world = SimWorld::Current();
  if (world) --world->Running()->depthInside;
}

bool SimulatorAllocations::OnAllocation(std::size_t size) noexcept {
  SimWorld* const world = SimWorld::Current();
  SimThread* const thread = world ? world->Running() : nullptr;
  if (!thread || thread->depthInside != 0) return true;
  const SimInside inside;
  if (world->Setup().allocationsAreSteps) world->Step(SimEvent::kAllocation, 0, size);
  return !world->DrawAllocationFault();
}

}  // namespace Orvane
