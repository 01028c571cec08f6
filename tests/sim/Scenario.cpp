#include "Scenario.h"

#include <algorithm>
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
