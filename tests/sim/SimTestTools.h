// What the tests of the simulator itself share.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "OSServices/LockClass.h"
#include "Orvane.h"
#include "OrvaneSimulator.h"

namespace Orvane {

constexpr std::uint32_t kForEver = 0xFFFFFFFF;
constexpr std::uint64_t kSimPage = 4096;

// Locks that a test enters and leaves in an order of its own.
inline void EnterLock(MTCritSec& lock) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
  lock.Enter();
}
inline void LeaveLock(MTCritSec& lock) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
  lock.Leave();
}

inline std::unique_ptr<MTSemaphore> NewSimSemaphore(std::uint32_t initial = 0) {
  return std::unique_ptr<MTSemaphore>(MTInterface::NewSemaphore(1000, initial));
}
inline std::unique_ptr<MTAtomicUnsigned32> NewSimAtomic(std::uint32_t initial = 0) {
  return std::unique_ptr<MTAtomicUnsigned32>(MTInterface::NewAtomicUnsigned32(initial));
}

// A world in which only the order of threads is left to the seed.
inline SimulationSetup PlainSetup(std::uint64_t seed = 1) {
  SimulationSetup setup;
  setup.seed = seed;
  setup.startMicro = 1000000;
  setup.timeJumps = false;
  setup.allocationsAreSteps = false;
  return setup;
}

inline SimulationSetup PlainSetup(std::uint64_t seed, SimulatedPolicy policy) {
  SimulationSetup setup = PlainSetup(seed);
  setup.policy = policy;
  return setup;
}

// Runs them as threads of the application and waits for their end.
inline void RunTogether(const std::vector<std::function<void()>>& mains) {
  std::size_t left = mains.size();
  for (const auto& main : mains) {
    Simulator::Spawn([&left, &main] {
      main();
      const SimulatorAllocations::Exempt exempt;
      --left;
    });
  }
  Simulator::WaitUntil([&left] { return left == 0; });
}

template <typename Body>
class BodyOf : public MTThreadBody {
 public:
  explicit BodyOf(Body body) : body_(std::move(body)) {}
  void ThreadMain(MTThread* thread) override { body_(thread); }

 private:
  const Body body_;
};

inline void ReleaseObject(SharedObject* object) {
  object->DecRef("tests/sim/SimTestTools", "Orvane::ReleaseObject", __LINE__);
}

inline Cache* NewSimCache(std::size_t blockBytes, std::size_t blocks) {
  auto* const factory = new BufferFactoryPhysMem;
  factory->Initialize(blockBytes, blocks, blocks, 0);
  auto* const cache = new Cache(factory);
  ReleaseObject(factory);
  return cache;
}

// The pattern of the tests' files.
inline unsigned char SimByteAt(std::uint64_t position) {
  return static_cast<unsigned char>(position * 31 + position / 251);
}
inline std::vector<unsigned char> SimContent(std::uint64_t bytes) {
  std::vector<unsigned char> content(bytes);
  for (std::uint64_t k = 0; k < bytes; ++k) content[k] = SimByteAt(k);
  return content;
}

class SimulatorTestBase : public testing::Test {
 protected:
  // A run that must fail, with `text` in its line, on both carriers alike.
  static SimulationResult ExpectFailure(const SimulationSetup& setup, const std::string& text,
                                        const std::function<void()>& scenario) {
    SimulationSetup onThreads = setup;
    onThreads.carrier = SimulatedCarrier::kThreads;
    SimulationResult result = Simulator::Run(setup, scenario);
    const SimulationResult other = Simulator::Run(onThreads, scenario);
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.failure.find(text), std::string::npos) << result.failure;
    EXPECT_EQ(result.failure, other.failure);
    EXPECT_EQ(result.traceHash, other.traceHash);
    return result;
  }
  static void ExpectInReport(const SimulationResult& result, const std::string& text) {
    EXPECT_NE(result.report.find(text), std::string::npos) << text << "\n" << result.report;
  }
  static void ExpectGood(const SimulationResult& result) {
    EXPECT_TRUE(result.ok) << result.report;
  }
};

}  // namespace Orvane
