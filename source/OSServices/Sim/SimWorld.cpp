#include "OSServices/Sim/SimWorld.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <utility>

#include "OSServices/Sim/MTPrimitivesSim.h"
#include "OSServices/Sim/SimDevice.h"

namespace Orvane {
namespace {

constexpr std::uint64_t kSecond = 1000000;
constexpr std::uint64_t kMillisecond = 1000;
constexpr std::size_t kEntriesOfReport = 60;

// Near the places where a millisecond clock of 32 bits changes its sign, wraps, or reads 0.
std::uint64_t StartBySeed(SimRandom* random) {
  constexpr std::uint64_t kWrap = (std::uint64_t{1} << 32) * kMillisecond;
  switch (random->Below(8)) {
    case 0:
      return kWrap - 1 - random->Below(20 * kMillisecond);
    case 1:
      return kWrap - 1 - random->Below(12 * kSecond);
    case 2:
      return kWrap / 2 - 1 - random->Below(3 * kSecond);
    case 3:
      return kWrap - kMillisecond;
    case 4:
      return random->Below(3 * kMillisecond);
    default:
      return kSecond + random->Below(1000 * kSecond);
  }
}

const char* ToText(SimWorld::Primitive primitive) {
  constexpr std::array<const char*, 3> kTexts = {"lock", "semaphore", "atomic value"};
  return kTexts[static_cast<std::size_t>(primitive)];
}

const char* ToText(SimulatedPolicy policy) {
  constexpr std::array<const char*, 7> kTexts = {"by seed",    "random",     "lazy",  "pct",
                                                 "starvation", "priorities", "replay"};
  return kTexts[static_cast<std::size_t>(policy)];
}

// Of the one that is being handled: ": " and what it says, if it says something.
std::string TextOfException() {
  try {
    throw;
  } catch (const std::exception& exception) {
    return std::string(": ") + exception.what();
  } catch (const char* text) {
    return std::string(": ") + text;
  } catch (...) {
    return std::string();
  }
}

}  // namespace

SimWorld* SimWorld::current = nullptr;

SimWorld::SimWorld(const SimulationSetup& setup, std::unique_ptr<SimPolicy> policy,
                   SimCarrier* carrier)
    : setup_(setup),
      policyKind_(setup.policy == SimulatedPolicy::kBySeed ? ChooseSimPolicy(setup.seed)
                                                           : setup.policy),
      policy_(policy ? std::move(policy)
                     : NewSimPolicy(policyKind_, SimRandom::Mix(setup.seed), setup.switches)),
      carrier_(carrier),
      timeRandom_(SimRandom::Mix(setup.seed + 1)),
      faultRandom_(SimRandom::Mix(setup.seed + 2)),
      callersRandom_(SimRandom::Mix(setup.seed + 3)),
      deviceRandom_(SimRandom::Mix(setup.seed + 4)),
      device_(std::make_unique<SimDevice>(this)) {
  startMicro_ = setup.startMicro == SimulationSetup::kTimeBySeed ? StartBySeed(&timeRandom_)
                                                                 : setup.startMicro;
  micro_ = startMicro_;
  if (setup.timeJumps && timeRandom_.OneIn(2)) nextJump_ = 1 + timeRandom_.Below(2000);
}

SimWorld::~SimWorld() = default;

SimulationResult SimWorld::Run(std::function<void()> firstThread) {
  const SimIgnoring ignoring;
  current = this;
  SimThread* const first =
      StartThread("the scenario", MTThread::kPriorityNormal, std::move(firstThread));
  running_ = first;
  carrier_->Switch(nullptr, first);
  if (!failed_) CheckLeftovers();
  for (const auto& thread : threads_) {
    SimObserve(&thread->handOver);
    if (!thread->finished) Abandon(thread.get());
  }
  current = nullptr;

  SimulationResult result;
  result.ok = !failed_;
  result.failure = failure_;
  result.report = report_;
  result.seed = setup_.seed;
  result.traceHash = trace_.GetHash();
  result.steps = step_;
  result.micros = micro_ - startMicro_;
  result.hostCalls = hostCalls_;
  result.allocations = allocations_;
  result.faults = faults_;
  result.switches = std::move(switches_);
  return result;
}

// It is in the middle of something: what it holds is never destroyed.
void SimWorld::Abandon(SimThread* thread) {
  carrier_->Abandon(thread);
  static_cast<void>(new std::function<void()>(std::move(thread->main)));
}

void SimWorld::ThreadEntry(SimThread* thread) {
  SimObserve(thread);
  SimIgnoreEnd();
  thread->depthInside = 0;
  try {
    thread->main();
    // What it was given ends in the world, too.
    thread->main = nullptr;
  } catch (...) {
    const SimInside inside;
    current->Fail("an exception escapes from " + thread->name + TextOfException());
  }
  SimPublish(thread);
  thread->depthInside = 1;
  SimIgnoreBegin();
  current->EndThread();
}

SimThread* SimWorld::StartThread(std::string name, MTThread::MTPriority priority,
                                 std::function<void()> main) {
  if (threads_.size() == SimCandidates::kMost) Fail("more threads than a world holds");
  threads_.push_back(std::make_unique<SimThread>());
  SimThread* const thread = threads_.back().get();
  thread->index = static_cast<std::uint32_t>(threads_.size() - 1);
  thread->name = std::move(name);
  thread->priority = priority;
  thread->main = std::move(main);
  carrier_->Prepare(thread);
  policy_->OnThreadMade(thread);
  SimPublish(thread);
  Record(SimEvent::kThreadMade, thread->index);
  Progress();
  return thread;
}

void SimWorld::EndThread() {
  ++step_;
  running_->finished = true;
  ++finishedThreads_;
  Record(SimEvent::kThreadEnds, running_->index);
  Progress();
  SimThread* const next = finishedThreads_ == threads_.size() ? nullptr : ChooseNext();
  SwitchTo(next);
}

void SimWorld::Record(SimEvent event, std::uint64_t object, std::uint64_t value) {
  const SimTrace::Entry entry{step_, micro_, object, value, running_ ? running_->index : 0, event};
  trace_.Add(entry);
  if (!setup_.printTrace) return;
  // Looking on changes nothing: what the text takes is no allocation of the thread.
  const SimInside inside;
  std::fprintf(stderr, "%s\n", SimTrace::ToText(entry).c_str());
}

void SimWorld::Step(SimEvent event, std::uint64_t object, std::uint64_t value) {
  ++step_;
  Record(event, object, value);
  CheckLimits();
  JumpNowAndThen();
  SwitchTo(ChooseNext());
}

bool SimWorld::Wait(SimWaitable* waitable, std::uint64_t deadline) {
  SimThread* const thread = running_;
  ++step_;
  thread->waitsFor = waitable;
  thread->deadline = deadline;
  thread->expired = deadline <= micro_;
  Progress();
  SwitchTo(ChooseNext());
  const bool ready = waitable->IsReadyFor(*thread);
  const bool taken = ready && (!thread->expired || deviceRandom_.OneIn(2));
  thread->waitsFor = nullptr;
  thread->deadline = kSimNever;
  thread->expired = false;
  Progress();
  return taken;
}

void SimWorld::SwitchTo(SimThread* next) {
  SimThread* const from = running_;
  if (next == from) return;
  running_ = next;
  SimPublish(&from->handOver);
  carrier_->Switch(from, next);
}

// Lets the device work, and time pass, until a thread is chosen. Null: everything has ended.
SimThread* SimWorld::ChooseNext() {
  for (;;) {
    SimCandidates candidates;
    candidates.areVaried = orderIsVaried_;
    Collect(&candidates);
    if (candidates.Count() == 0) {
      if (!MoveTime()) NobodyCanGoOn();
      continue;
    }
    const std::size_t chosen = candidates.Count() == 1 ? 0 : policy_->Choose(candidates, step_);
    if (chosen == candidates.count) {
      ++step_;
      if (setup_.recordSwitches) switches_.emplace_back(step_ - 1, kSimDevice);
      device_->CompleteOne();
      Progress();
      continue;
    }
    SimThread* const thread = candidates.threads[chosen];
    if (setup_.recordSwitches && candidates.Count() > 1 &&
        thread != (candidates.running ? candidates.running : candidates.threads[0])) {
      switches_.emplace_back(step_, thread->index);
    }
    return thread;
  }
}

void SimWorld::Collect(SimCandidates* candidates) {
  for (const auto& thread : threads_) {
    if (thread->finished || !thread->CanGoOn()) continue;
    candidates->threads[candidates->count++] = thread.get();
    if (thread.get() == running_) candidates->running = running_;
  }
  candidates->device = device_->HasReadyTransfer();
}

// To the next moment at which something can happen; false if there is none.
bool SimWorld::MoveTime() {
  std::uint64_t next = device_->GetNextReadyTime();
  for (const auto& thread : threads_) {
    if (!thread->finished && thread->waitsFor) next = std::min(next, thread->deadline);
  }
  if (next == kSimNever) return false;
  SetTime(std::max(next, micro_));
  return true;
}

// Somebody else used the processors, or the clock was slow to be read.
void SimWorld::JumpNowAndThen() {
  if (nextJump_ == 0 || step_ < nextJump_) return;
  nextJump_ = step_ + 1 + timeRandom_.Below(4000);
  constexpr std::array<std::uint64_t, 5> kLengths = {1, kMillisecond, 30 * kMillisecond, kSecond,
                                                     11 * kSecond};
  SetTime(micro_ + 1 + timeRandom_.Below(kLengths[timeRandom_.Below(kLengths.size())]));
}

void SimWorld::SetTime(std::uint64_t micro) {
  micro_ = micro;
  Record(SimEvent::kTimeMoved, 0, micro);
  Progress();
  for (const auto& thread : threads_) {
    if (thread->waitsFor && thread->deadline <= micro_) thread->expired = true;
  }
  if ((micro_ - startMicro_) / kSecond > setup_.maxSeconds) {
    Fail("no end in " + std::to_string(setup_.maxSeconds) + " seconds of its time");
  }
}

std::uint64_t SimWorld::DeadlineIn(std::uint32_t timeoutMs) const {
  return timeoutMs == 0xFFFFFFFF ? kSimNever : micro_ + std::uint64_t{timeoutMs} * kMillisecond;
}

void SimWorld::WaitForQuiet() {
  if (quiet_.isAwaited) Fail("two threads wait for each other to have nothing to do");
  quiet_.isAwaited = true;
  Wait(&quiet_, kSimNever);
  quiet_.isAwaited = quiet_.isThere = false;
  ObserveAll();
}

void SimWorld::ObserveAll() {
  for (const auto& thread : threads_) SimObserve(&thread->handOver);
}

void SimWorld::NobodyCanGoOn() {
  if (quiet_.isAwaited) {
    quiet_.isThere = true;
    return;
  }
  const bool scenarioEnded = threads_.front()->finished;
  Fail(scenarioEnded ? "threads are left over that nobody ends" : "nobody can go on");
}

void SimWorld::CheckLimits() {
  if (step_ - lastProgress_ > setup_.maxStepsWithoutEvent) {
    Fail(running_->name + " is polling: " + std::to_string(setup_.maxStepsWithoutEvent) +
         " steps without an event while time stands still");
  }
  if (step_ > setup_.maxSteps) Fail("no end in " + std::to_string(setup_.maxSteps) + " steps");
}

void SimWorld::CheckLeftovers() {
  if (liveCount_ == 0) return;
  std::string text;
  std::size_t named = 0;
  for (std::size_t k = 0; k < live_.size(); ++k) {
    const Live& live = live_[k];
    if (!live.isThere || ++named > 10) continue;
    text += "  " + std::string(ToText(live.primitive)) + " " + std::to_string(k + 1) +
            ", made by thread " + std::to_string(live.madeBy) + " at step " +
            std::to_string(live.madeAt) + "\n";
  }
  failed_ = true;
  failure_ = std::to_string(liveCount_) + " primitives are left over";
  report_ = MakeReport() + text;
}

void SimWorld::Fail(const std::string& text) {
  const SimInside inside;
  if (!failed_) {
    failed_ = true;
    failure_ = text;
    report_ = MakeReport();
  }
  SimThread* const from = running_;
  running_ = nullptr;
  // It stays here for ever, also when it was at its end.
  from->finished = false;
  SimPublish(&from->handOver);
  carrier_->Switch(from, nullptr);
  std::abort();
}

void SimWorld::Note(const std::string& text) {
  trace_.AddNote(step_, text);
  if (setup_.printTrace) std::fprintf(stderr, "          note: %s\n", text.c_str());
}

std::string SimWorld::MakeReport() const {
  return failure_ + "\nseed " + std::to_string(setup_.seed) + ", policy " + ToText(policyKind_) +
         ", step " + std::to_string(step_) + ", time " + std::to_string(micro_) + " us\n" +
         "the last steps:\n" + trace_.LastToText(kEntriesOfReport) + "threads:\n" + ThreadsToText();
}

std::string SimWorld::ThreadsToText() const {
  std::string text;
  for (const auto& thread : threads_) {
    if (thread->finished) continue;
    text += "  thread " + std::to_string(thread->index) + " (" + thread->name + ", priority " +
            std::to_string(thread->priority) + ")";
    if (thread.get() == running_) text += " runs";
    if (thread->waitsFor) {
      text += " waits for " + thread->waitsFor->Describe();
      if (thread->deadline != kSimNever) text += " until " + std::to_string(thread->deadline);
    }
    for (std::size_t k = 0; k < thread->held.count; ++k) {
      text += (k == 0 ? "; inside " : ", ") + DescribeSimLock(thread->held.locks[k]);
    }
    text += "\n";
  }
  return text;
}

bool SimWorld::DrawFault(unsigned chance) {
  if (!faultsOn_) return false;
  ++hostCalls_;
  const SimulatedFaults& faults = setup_.faults;
  const bool byNumber =
      faults.failCall != 0 &&
      (hostCalls_ == faults.failCall || (faults.andAllLater && hostCalls_ > faults.failCall));
  if (!byNumber && (chance == 0 || faultRandom_.Below(1000) >= chance)) return false;
  ++faults_;
  Record(SimEvent::kFault, hostCalls_);
  return true;
}

bool SimWorld::DrawAllocationFault() {
  if (!faultsOn_) return false;
  ++allocations_;
  const SimulatedFaults& faults = setup_.faults;
  const std::uint64_t at = faults.failAllocationCall;
  const bool byNumber =
      at != 0 && (allocations_ == at || (faults.andAllLater && allocations_ > at));
  if (!byNumber &&
      (faults.failAllocation == 0 || faultRandom_.Below(1000) >= faults.failAllocation)) {
    return false;
  }
  ++faults_;
  Record(SimEvent::kFault, allocations_, 1);
  return true;
}

bool SimWorld::DrawLie(unsigned chance) {
  if (!faultsOn_ || chance == 0 || faultRandom_.Below(1000) >= chance) return false;
  ++faults_;
  return true;
}

void SimWorld::StopFaults() {
  faultsOn_ = false;
  device_->EndHanging();
}

std::uint64_t SimWorld::OnMade(Primitive primitive) {
  live_.push_back({step_, running_ ? running_->index : 0, primitive, true});
  ++liveCount_;
  return live_.size();
}

void SimWorld::OnDestroyed(std::uint64_t object) {
  live_[static_cast<std::size_t>(object - 1)].isThere = false;
  --liveCount_;
}

}  // namespace Orvane
