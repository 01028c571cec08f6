// orvane_bench [--device_dir=PATH] [--memory_dir=PATH] [--file_mib=N] [Google Benchmark's options]
// Reads a file on the device and one on tmpfs through the library, with a cache and without, and
// through its peers, in random order, and prints the ratios; then what caches cost as they grow.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "CacheGrowth.h"
#include "CachedReads.h"
#include "Orvane.h"
#include "RatioReporter.h"
#include "TestFile.h"
#include "UncachedReads.h"

namespace {

// Takes "--name=value" out of the arguments.
std::string TakeOption(std::vector<char*>* arguments, const char* name, std::string value) {
  const std::string prefix = std::string("--") + name + "=";
  for (auto it = arguments->begin(); it != arguments->end(); ++it) {
    if (std::strncmp(*it, prefix.c_str(), prefix.size()) != 0) continue;
    value = *it + prefix.size();
    arguments->erase(it);
    break;
  }
  return value;
}

}  // namespace

int main(int argc, char** argv) try {
  std::vector<char*> arguments(argv, argv + argc);
  const std::string deviceDir =
      TakeOption(&arguments, "device_dir", std::filesystem::current_path().string());
  const std::string memoryDir = TakeOption(&arguments, "memory_dir", "/dev/shm");
  const std::uint64_t bytes = std::stoull(TakeOption(&arguments, "file_mib", "1024")) << 20;
  // Defaults that the command line may override, so before what it says.
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  char repetitions[] = "--benchmark_repetitions=7";
  arguments.insert(arguments.begin() + 1, {interleave, repetitions});

  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

  Orvane::OSServices::Init();
  std::printf("engine: %s\n", Orvane::NativeFileSysInterfaceImpHost::GetEngineName());
  std::vector<std::unique_ptr<bench::TestFile>> files;
  files.push_back(std::make_unique<bench::TestFile>(deviceDir, bytes));
  bench::RegisterUncachedReads("device", *files.back());
  bench::RegisterCachedReads("device", *files.back());
  if (std::filesystem::is_directory(memoryDir)) {
    files.push_back(std::make_unique<bench::TestFile>(memoryDir, bytes));
    bench::RegisterUncachedReads("memory", *files.back());
  }
  bench::RegisterCacheGrowth();
  bench::RegisterCacheFootprint();
  bench::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return 0;
} catch (const std::exception& error) {
  std::fprintf(stderr, "orvane_bench: %s\n", error.what());
  return 1;
}
