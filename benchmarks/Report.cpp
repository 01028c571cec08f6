#include "Report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

struct Number {
  double value;
  std::string unit;
};

// With a prefix of a thousand where that makes it shorter.
std::string ToText(Number number) {
  const char* prefix = "";
  if (number.value >= 1e6) {
    number.value /= 1e6;
    prefix = "M";
  } else if (number.value >= 1e4) {
    number.value /= 1e3;
    prefix = "k";
  }
  return fmt::format("{:.4g} {}{}", number.value, prefix, number.unit);
}

const char* ToText(Measure measure) {
  switch (measure) {
    case Measure::kRate:
      return "rate";
    case Measure::kTime:
      return "time";
    default:
      return "processor time";
  }
}

std::string Join(const std::vector<std::string>& names) {
  return fmt::format("{}", fmt::join(names, " and "));
}

std::string DescribeAim(bool atLeast, double bound, double value) {
  return fmt::format("{} {:.4g}: {}", atLeast ? "at least" : "at most", bound,
                     IsMet(atLeast, bound, value) ? "met" : "MISSED");
}

std::vector<double> Rates(const ContenderResult& contender) {
  std::vector<double> rates;
  for (const Sample& sample : contender.samples) rates.push_back(sample.items / sample.seconds);
  return rates;
}

double ProcessorMicros(const ContenderResult& contender) {
  std::vector<double> micros;
  for (const Sample& sample : contender.samples) {
    micros.push_back(sample.processorSeconds / sample.items * 1e6);
  }
  return GetSpread(micros).median;
}

void PrintContender(const ContenderResult& contender, const std::string& unit) {
  if (!contender.error.empty()) {
    fmt::print("  {:<28} did not run: {}\n", contender.name, contender.error);
    return;
  }
  const Spread rate = GetSpread(Rates(contender));
  const LatencyHistogram& latencies = *contender.latencies;
  fmt::print("  {:<28} {:>16}/s  processor {:8.3f} us", contender.name, ToText({rate.median, unit}),
             ProcessorMicros(contender));
  if (latencies.GetCount() > 0) {
    fmt::print("  p50 {:8.2f}  p99 {:8.2f}  p99.9 {:8.2f} us", latencies.GetQuantile(0.5),
               latencies.GetQuantile(0.99), latencies.GetQuantile(0.999));
  }
  fmt::print("  {:.3g} allocations  {:.1f} MiB\n", contender.allocationsPerItem,
             static_cast<double>(contender.peakBytes) / (1 << 20));
}

std::string DescribeRatio(const Aim& aim, const Spread& ratio) {
  return fmt::format("{:<4} {} of {} to {}: {:.3f} ({:.3f} to {:.3f}), {}", aim.id,
                     ToText(aim.measure), aim.contender, Join(aim.against), ratio.median, ratio.low,
                     ratio.high, DescribeAim(aim.atLeast, aim.bound, ratio.median));
}

std::string DescribeValue(const FigureValue& value) {
  std::string text =
      fmt::format("{:<4} {}: {:.4g} {} ({:.4g} to {:.4g})", value.aim ? value.aim->id : "",
                  value.name, value.spread.median, value.unit, value.spread.low, value.spread.high);
  if (value.aim) {
    text += ", " + DescribeAim(value.aim->atLeast, value.aim->bound, value.spread.median);
  }
  return text;
}

nlohmann::json ToJson(const ContenderResult& contender) {
  const std::vector<double> rates = Rates(contender);
  nlohmann::json json{{"name", contender.name},
                      {"place", contender.place},
                      {"rates", rates},
                      {"rate", GetSpread(rates).median},
                      {"processor_micros", ProcessorMicros(contender)},
                      {"allocations_per_item", contender.allocationsPerItem},
                      {"peak_bytes", contender.peakBytes},
                      {"latency_micros", nlohmann::json::object()},
                      {"latency_bins", nlohmann::json::array()},
                      {"error", contender.error}};
  // Without bins where the times of single items are not taken.
  if (!contender.latencies) return json;
  json["latency_micros"] = {{"p50", contender.latencies->GetQuantile(0.5)},
                            {"p99", contender.latencies->GetQuantile(0.99)},
                            {"p999", contender.latencies->GetQuantile(0.999)}};
  for (const LatencyHistogram::Bin& bin : contender.latencies->GetBins()) {
    json["latency_bins"].push_back({bin.upperMicros, bin.count});
  }
  return json;
}

}  // namespace

FigureResult RunFigure(const Figure& figure, unsigned times) {
  std::vector<Value> first;
  std::vector<std::vector<double>> all;
  for (unsigned k = 0; k < times; ++k) {
    std::vector<Value> values = figure.measure();
    if (k == 0) {
      all.resize(values.size());
      first = values;
    }
    for (std::size_t v = 0; v < all.size(); ++v) all[v].push_back(values.at(v).value);
  }
  FigureResult result{&figure, {}};
  for (std::size_t v = 0; v < all.size(); ++v) {
    const auto aim = std::find_if(figure.aims.begin(), figure.aims.end(),
                                  [&](const FigureAim& a) { return a.value == first[v].name; });
    result.values.push_back({first[v].name, first[v].unit, GetSpread(all[v]),
                             aim == figure.aims.end() ? nullptr : &*aim});
  }
  return result;
}

void Print(const WorkResult& result) {
  fmt::print("\n{}\n", result.work->name);
  for (const ContenderResult& contender : result.contenders) {
    PrintContender(contender, result.work->unit);
  }
  for (const Aim& aim : result.work->aims) {
    Spread ratio{};
    if (GetRatio(result, aim, &ratio)) fmt::print("    {}\n", DescribeRatio(aim, ratio));
  }
  std::fflush(stdout);
}

void Print(const FigureResult& result) {
  fmt::print("\n{}\n", result.figure->name);
  for (const FigureValue& value : result.values) fmt::print("    {}\n", DescribeValue(value));
  std::fflush(stdout);
}

nlohmann::json ToJson(const WorkResult& result) {
  nlohmann::json json{{"name", result.work->name},
                      {"unit", result.work->unit},
                      {"contenders", nlohmann::json::array()},
                      {"ratios", nlohmann::json::array()}};
  for (const ContenderResult& contender : result.contenders) {
    json["contenders"].push_back(ToJson(contender));
  }
  for (const Aim& aim : result.work->aims) {
    Spread ratio{};
    if (!GetRatio(result, aim, &ratio)) continue;
    json["ratios"].push_back({{"id", aim.id},
                              {"contender", aim.contender},
                              {"against", Join(aim.against)},
                              {"measure", ToText(aim.measure)},
                              {"median", ratio.median},
                              {"low", ratio.low},
                              {"high", ratio.high},
                              {"at_least", aim.atLeast},
                              {"bound", aim.bound},
                              {"met", IsMet(aim.atLeast, aim.bound, ratio.median)}});
  }
  return json;
}

nlohmann::json ToJson(const FigureResult& result) {
  nlohmann::json json{{"name", result.figure->name}, {"values", nlohmann::json::array()}};
  for (const FigureValue& value : result.values) {
    nlohmann::json entry{{"id", value.aim ? value.aim->id : ""},
                         {"name", value.name},
                         {"unit", value.unit},
                         {"median", value.spread.median},
                         {"low", value.spread.low},
                         {"high", value.spread.high}};
    if (value.aim) {
      entry["at_least"] = value.aim->atLeast;
      entry["bound"] = value.aim->bound;
      entry["met"] = IsMet(value.aim->atLeast, value.aim->bound, value.spread.median);
    }
    json["values"].push_back(entry);
  }
  return json;
}

void PrintSummary(const std::vector<WorkResult>& works, const std::vector<FigureResult>& figures) {
  unsigned aims = 0;
  unsigned met = 0;
  fmt::print("\nAims (median of the rounds, lowest to highest)\n");
  for (const WorkResult& result : works) {
    for (const Aim& aim : result.work->aims) {
      Spread ratio{};
      if (!GetRatio(result, aim, &ratio)) continue;
      ++aims;
      met += IsMet(aim.atLeast, aim.bound, ratio.median);
      fmt::print("  {}  [{}]\n", DescribeRatio(aim, ratio), result.work->name);
    }
  }
  for (const FigureResult& result : figures) {
    for (const FigureValue& value : result.values) {
      if (!value.aim) continue;
      ++aims;
      met += IsMet(value.aim->atLeast, value.aim->bound, value.spread.median);
      fmt::print("  {}  [{}]\n", DescribeValue(value), result.figure->name);
    }
  }
  fmt::print("{} of {} aims met\n", met, aims);
}

}  // namespace bench
