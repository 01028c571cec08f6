#include "StressTools.h"

#include <cstdlib>
#include <iostream>
#include <random>

namespace Orvane {
namespace {

std::uint64_t NumberFromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* const text = std::getenv(name);
  return text && *text != '\0' ? std::strtoull(text, nullptr, 10) : otherwise;
}

}  // namespace

StressOptions StressOptions::FromEnvironment() {
  const StressOptions options{
      NumberFromEnvironment("ORVANE_STRESS_SECONDS", 5),
      NumberFromEnvironment("ORVANE_STRESS_SEED", std::random_device{}()),
  };
  std::cout << "ORVANE_STRESS_SEED=" << options.seed << " ORVANE_STRESS_SECONDS=" << options.seconds
            << std::endl;
  return options;
}

void PrintStressTotals(std::uint64_t operations, std::uint64_t comparedBytes) {
  std::cout << "stress totals: " << operations << " operations, " << comparedBytes
            << " bytes compared" << std::endl;
}

}  // namespace Orvane
