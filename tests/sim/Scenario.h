// The scenarios of the simulator, by name.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "OrvaneSimulator.h"

namespace Orvane {

class SimBench;

struct Scenario {
  const char* name;
  const char* about;  // one sentence
  void (*run)(SimBench& bench);
  bool isSmall = false;     // few enough steps for all schedules with two preemptions
  bool takesFaults = true;  // works also where the host fails at any call

  static const std::vector<const Scenario*>& All();
  // Null if there is none.
  static const Scenario* Find(std::string_view name);

  Scenario(const char* name, const char* about, void (*run)(SimBench& bench), bool isSmall,
           bool takesFaults);
};

// A mixture: most worlds work, some fail now and then in one respect, some in all.
SimulatedFaults FaultsOfSeed(std::uint64_t seed);

// Runs it and checks everything at its end. It ends early where the host did not let it begin.
void RunScenario(const Scenario& scenario);

}  // namespace Orvane

// ORVANE_SCENARIO(Name, "What happens.") { ... uses `bench` ... }
#define ORVANE_SCENARIO_OF(Name, About, isSmall, takesFaults)                                   \
  static void Run##Name(Orvane::SimBench& bench);                                               \
  static const Orvane::Scenario scenario##Name(#Name, About, &Run##Name, isSmall, takesFaults); \
  static void Run##Name([[maybe_unused]] Orvane::SimBench& bench)
#define ORVANE_SCENARIO(Name, About) ORVANE_SCENARIO_OF(Name, About, false, true)
#define ORVANE_SMALL_SCENARIO(Name, About) ORVANE_SCENARIO_OF(Name, About, true, true)
