// What a run found, for people and as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "PairedRun.h"

namespace bench {

// Of one value of a figure, over all times it was measured.
struct FigureValue {
  std::string name;
  std::string unit;
  Spread spread;
  const FigureAim* aim;  // null: none
};

struct FigureResult {
  const Figure* figure;
  std::vector<FigureValue> values;
};

FigureResult RunFigure(const Figure& figure, unsigned times);

// The lines of one result on the standard output, as soon as it is there.
void Print(const WorkResult& result);
void Print(const FigureResult& result);

nlohmann::json ToJson(const WorkResult& result);
nlohmann::json ToJson(const FigureResult& result);

// One line per aim, and how many are met.
void PrintSummary(const std::vector<WorkResult>& works, const std::vector<FigureResult>& figures);

}  // namespace bench
