#include "Scenario.h"

#include <algorithm>
#include <array>
#include <string>

#include "SimBench.h"

namespace Orvane {
namespace {

std::vector<const Scenario*>& Registered() {
  static std::vector<const Scenario*> scenarios;
  return scenarios;
}

}  // namespace

Scenario::Scenario(const char* scenarioName, const char* scenarioAbout,
                   void (*scenarioRun)(SimBench& bench), bool small, bool faults)
    : name(scenarioName),
      about(scenarioAbout),
      run(scenarioRun),
      isSmall(small),
      takesFaults(faults) {
  Registered().push_back(this);
}

const std::vector<const Scenario*>& Scenario::All() {
  std::vector<const Scenario*>& all = Registered();
  std::sort(all.begin(), all.end(), [](const Scenario* left, const Scenario* right) {
    return std::string_view(left->name) < right->name;
  });
  return all;
}

const Scenario* Scenario::Find(std::string_view name) {
  for (const Scenario* const scenario : Registered()) {
    if (scenario->name == name) return scenario;
  }
  return nullptr;
}

SimulatedFaults FaultsOfSeed(std::uint64_t seed) {
  SimulatedFaults faults;
  const unsigned chance = std::array<unsigned, 4>{5, 20, 80, 300}[seed / 16 % 4];
  switch (seed % 16) {
    case 1:
      faults.failIssue = chance;
      break;
    case 3:
      faults.failTransfer = chance;
      break;
    case 5:
      faults.shortTransfer = 400;
      break;
    case 7:
      faults.hang = chance;
      break;
    case 9:
      faults.failPrimitive = faults.failThread = faults.failPages = chance / 5 + 1;
      break;
    case 11:
      faults.failAllocation = chance / 5 + 1;
      break;
    case 13:
      faults.failIssue = faults.failTransfer = faults.hang = faults.failOpen = chance / 2;
      faults.shortTransfer = 100;
      break;
    default:
      break;
  }
  return faults;
}

void RunScenario(const Scenario& scenario) {
  SimBench bench;
  try {
    scenario.run(bench);
  } catch (const SimSetupFailed&) {
    // The host did not let it begin, or go on.
  }
  bench.Finish();
}

}  // namespace Orvane
