// Compares the library with what a user would take instead, on the same files in one run.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "BenchHost.h"
#include "Orvane.h"
#include "Report.h"
#include "TestFile.h"

namespace bench {
namespace {

struct Options {
  std::string folder = ".";
  std::string memoryFolder = FindMemoryFolder();
  std::uint64_t fileMib = 1024;
  std::string filter;
  std::string json;
  std::string figures;  // measured by others
  bool quick = false;
  bool list = false;
  RunOptions run;
  std::string only;     // one contender
  unsigned passes = 0;  // of it, and nothing measured
};

void AddOptions(CLI::App* app, Options* options) {
  app->add_option("--folder", options->folder, "where the file on the device is written");
  app->add_option("--memory-folder", options->memoryFolder,
                  "where the file in memory is written; empty for none");
  app->add_option("--file-mib", options->fileMib, "size of each file in MiB")
      ->check(CLI::Range(std::uint64_t{512}, std::uint64_t{1} << 20));
  app->add_option("--filter", options->filter,
                  "only works and figures whose name matches this regular expression");
  app->add_option("--rounds", options->run.rounds, "rounds of each work")
      ->check(CLI::Range(1, 1000));
  app->add_option("--seconds", options->run.secondsPerSample,
                  "least seconds per contender and round")
      ->check(CLI::Range(0.001, 3600.0));
  app->add_option("--json", options->json, "writes everything found to this file");
  app->add_option("--figures", options->figures, "adds the figures of this JSON file")
      ->check(CLI::ExistingFile);
  app->add_flag("--quick", options->quick, "smaller files, three short rounds: a first look");
  app->add_flag("--list", options->list, "names the works and figures, and measures nothing");
  auto* const passes =
      app->add_option("--passes", options->passes,
                      "runs so many passes of one contender, for strace and profilers");
  app->add_option("--only", options->only, "that contender")->needs(passes);
}

Suite MakeSuite(const TestFile& device, const std::string& deviceKind, const TestFile* memory,
                const std::string& memoryKind) {
  Suite suite;
  AddUncachedWorks(&suite, deviceKind, true, device);
  if (memory) AddUncachedWorks(&suite, memoryKind, false, *memory);
  AddHitWorks(&suite, device);
  AddBlockCacheWorks(&suite, device);
  AddThreadWorks(&suite, device);
  AddScanWorks(&suite, device);
  AddGrowthWorks(&suite);
  AddCommandWorks(&suite);
  AddShortageWorks(&suite, device);
  AddDueTimeFigures(&suite);
  AddFootprintFigures(&suite);
  return suite;
}

// [{"name", "values": [{"name", "unit", "value"}]}]
void AddFiguresOf(const std::string& file, Suite* suite) {
  std::ifstream stream(file);
  for (const nlohmann::json& figure : nlohmann::json::parse(stream)) {
    std::vector<Value> values;
    for (const nlohmann::json& value : figure.at("values")) {
      values.push_back({value.at("name"), value.at("unit"), value.at("value")});
    }
    suite->figures.push_back({figure.at("name"), [values] { return values; }, {}});
  }
}

void KeepMatching(Suite* suite, const std::string& filter) {
  const std::regex pattern(filter);
  const auto isOther = [&](const auto& entry) { return !std::regex_search(entry.name, pattern); };
  std::erase_if(suite->works, isOther);
  std::erase_if(suite->figures, isOther);
}

void RunPasses(const Suite& suite, const Options& options) {
  for (const Work& work : suite.works) {
    for (const Contender& contender : work.contenders) {
      if (contender.name != options.only) continue;
      const std::unique_ptr<Runner> runner = contender.make();
      for (unsigned pass = 0; pass < options.passes; ++pass) {
        runner->Prepare();
        runner->Pass(nullptr);
      }
      fmt::print("{}: {} items by {}\n", work.name, work.items * options.passes, contender.name);
    }
  }
}

void RunAll(const Suite& suite, const Options& options, nlohmann::json machine) {
  std::vector<WorkResult> works;
  std::vector<FigureResult> figures;
  nlohmann::json json{{"machine", std::move(machine)},
                      {"works", nlohmann::json::array()},
                      {"figures", nlohmann::json::array()}};
  for (const Work& work : suite.works) {
    works.push_back(RunWork(work, options.run));
    Print(works.back());
    json["works"].push_back(ToJson(works.back()));
  }
  for (const Figure& figure : suite.figures) {
    figures.push_back(RunFigure(figure, std::min(options.run.rounds, 3U)));
    Print(figures.back());
    json["figures"].push_back(ToJson(figures.back()));
  }
  PrintSummary(works, figures);
  if (options.json.empty()) return;
  std::ofstream file(options.json);
  file << json.dump(1) << '\n';
  if (!file.flush()) throw std::runtime_error("cannot write " + options.json);
}

std::string Today() {
  const std::chrono::year_month_day day(
      std::chrono::floor<std::chrono::days>(std::chrono::system_clock::now()));
  return fmt::format("{:04}-{:02}-{:02}", static_cast<int>(day.year()),
                     static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
}

void Run(Options options) {
  if (options.quick) {
    options.fileMib = std::min<std::uint64_t>(options.fileMib, 512);
    options.run.rounds = std::min(options.run.rounds, 3U);
    options.run.secondsPerSample = std::min(options.run.secondsPerSample, 0.05);
  }
  Orvane::OSServices::Init();
  const std::uint64_t bytes = options.fileMib << 20;
  const TestFile device(options.folder, bytes);
  std::unique_ptr<TestFile> memory;
  if (!options.memoryFolder.empty()) {
    memory = std::make_unique<TestFile>(options.memoryFolder, bytes);
  }
  const std::string deviceKind = DescribeFolder(options.folder);
  const std::string memoryKind = memory ? DescribeFolder(options.memoryFolder) : "";
  Suite suite = MakeSuite(device, deviceKind, memory.get(), memoryKind);
  if (!options.figures.empty()) AddFiguresOf(options.figures, &suite);
  KeepMatching(&suite, options.filter);
  if (options.list) {
    for (const Work& work : suite.works) fmt::print("{}\n", work.name);
    for (const Figure& figure : suite.figures) fmt::print("{}\n", figure.name);
  } else if (options.passes > 0) {
    RunPasses(suite, options);
  } else {
    const char* const engine = Orvane::NativeFileSysInterfaceImpHost::GetEngineName();
    fmt::print("{}; {}{}{}; engine {}\n", DescribeMachine(), deviceKind, memory ? ", " : "",
               memoryKind, engine);
    RunAll(suite, options,
           {{"processor", DescribeMachine()},
            {"device_folder", deviceKind},
            {"memory_folder", memoryKind},
            {"engine", engine},
            {"date", Today()},
            {"rounds", options.run.rounds},
            {"quick", options.quick}});
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  CLI::App app{
      "Compares Orvane with what a user would take instead, on the same files in one run."};
  bench::Options options;
  bench::AddOptions(&app, &options);
  CLI11_PARSE(app, argc, argv);
  try {
    bench::Run(options);
  } catch (const std::exception& error) {
    fmt::print(stderr, "orvane_bench: {}\n", error.what());
    return 1;
  } catch (const char* error) {
    fmt::print(stderr, "orvane_bench: {}\n", error);
    return 1;
  }
  return 0;
}
