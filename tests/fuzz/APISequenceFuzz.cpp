// Any operations in any order, in a simulated world. The first four bytes are the world's seed, the
// others choose the operations.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "OrvaneSimulator.h"
#include "OrvaneSimulatorNew.h"
#include "sim/Scenario.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  Orvane::Simulator::Install();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::uint32_t seed = 0;
  if (size < sizeof seed) return 0;
  std::memcpy(&seed, data, sizeof seed);
  Orvane::SimulationSetup setup;
  setup.seed = seed;
  setup.faults = Orvane::FaultsOfSeed(seed);
  setup.allocationsAreSteps = seed % 4 == 0;
  setup.firstRandoms.assign(data + sizeof seed, data + size);
  const Orvane::Scenario& scenario = *Orvane::Scenario::Find("AnySequence");
  const Orvane::SimulationResult result =
      Orvane::Simulator::Run(setup, [&] { Orvane::RunScenario(scenario); });
  if (result.ok) return 0;
  std::fprintf(stderr, "not ok: %s", result.report.c_str());
  std::abort();
}
