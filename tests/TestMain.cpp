// orvane_tests [--engine=NAME] [--dir=PATH] [--print-lock-order]
//              [--delays=SEED [--delay_one_in=N] [--delay_longest=MICROSECONDS]]
//              [options of the test framework]
//
// --delays has the threads of the whole program delayed by chance (see DelayingMTInterface), unless
// SEED is 0.
#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

#include "Cache/CacheReaper.h"
#include "DelayingMTInterface.h"
#include "LockOrderChecker.h"
#include "OSServices.h"
#include "OSServicesHost.h"
#include "OrvaneTest.h"
#include "TestEngine.h"
#include "TestHost.h"
#include "TestPhysMemInterface.h"

namespace {

struct Options {
  std::string engine = "auto";
  std::string directory;
  bool printLockOrder = false;
  std::uint64_t delaySeed = 0;
  Orvane::DelayRates delayRates;
};

bool TakeOption(std::string_view argument, std::string_view name, std::string* value) {
  if (!argument.starts_with(name)) return false;
  *value = argument.substr(name.size());
  return true;
}

template <typename Number>
bool TakeNumber(std::string_view argument, std::string_view name, Number* number) {
  std::string text;
  if (!TakeOption(argument, name, &text)) return false;
  const char* const end = text.data() + text.size();
  return std::from_chars(text.data(), end, *number).ptr == end && !text.empty();
}

bool ParseOptions(int count, char** arguments, Options* options) {
  for (int i = 1; i < count; ++i) {
    if (TakeOption(arguments[i], "--engine=", &options->engine)) continue;
    if (TakeOption(arguments[i], "--dir=", &options->directory)) continue;
    if (TakeNumber(arguments[i], "--delays=", &options->delaySeed)) continue;
    if (TakeNumber(arguments[i], "--delay_one_in=", &options->delayRates.oneIn)) continue;
    if (TakeNumber(arguments[i], "--delay_longest=", &options->delayRates.longMicro)) continue;
    if (arguments[i] == std::string_view("--print-lock-order")) {
      options->printLockOrder = true;
      continue;
    }
    std::cerr << "unknown argument " << arguments[i] << "\n";
    return false;
  }
  options->delayRates.oneIn = std::max(options->delayRates.oneIn, 1U);
  return true;
}

// What repeats the run, or as much of it as can be repeated.
class DelayReminder : public testing::EmptyTestEventListener {
 public:
  explicit DelayReminder(std::string option) : option_(std::move(option)) {}

 private:
  void OnTestPartResult(const testing::TestPartResult& part) override {
    if (part.failed()) std::cout << "with " << option_ << std::endl;
  }

  const std::string option_;
};

// The threading that the program is to run with.
Orvane::MTInterfaceImp* NewThreading(const Options& options) {
  Orvane::MTInterfaceImp* const plain = &Orvane::TestMTInterface::Get();
  if (options.delaySeed == 0) return plain;
  testing::UnitTest::GetInstance()->listeners().Append(
      new DelayReminder("--delays=" + std::to_string(options.delaySeed)));
  return new Orvane::DelayingMTInterface(plain, options.delaySeed, options.delayRates);
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  Options options;
  Orvane::Engine engine{};
  if (!ParseOptions(argc, argv, &options)) return 2;
  if (!Orvane::ToEngine(options.engine, &engine)) {
    std::cerr << "--engine is " << Orvane::kEngineNames << "\n";
    return 2;
  }
  // A directory of the caller's is kept; a temporary one goes at the end.
  const bool temporary = options.directory.empty();
  if (temporary) options.directory = Orvane::NewTemporaryDirectory();
  std::filesystem::create_directories(options.directory);
  Orvane::OrvaneTest::SetDirectory(options.directory);

  Orvane::OrvaneTest::RunAllBeforeInit();
  Orvane::OSServices::InitWithExtensions(NewThreading(options),
                                         &Orvane::TestPhysMemInterface::Get(),
                                         new Orvane::NativeFileSysInterfaceImpHost(engine));
  // Made once per process, so that no test is held responsible for it.
  Orvane::CacheReaper::Stop();
  std::cout << "engine asked for: " << options.engine
            << ", running: " << Orvane::NativeFileSysInterfaceImpHost::GetEngineName()
            << "; directory: " << options.directory << "; delays: "
            << (options.delaySeed ? "seed " + std::to_string(options.delaySeed) : "none")
            << std::endl;
  const int result = RUN_ALL_TESTS();
  if (options.delaySeed != 0) {
    std::cout << Orvane::DelayingMTInterface::CountDelays()
              << " delays with --delays=" << options.delaySeed << std::endl;
  }
  if (options.printLockOrder) std::cout << Orvane::LockOrderChecker::Get().GetEdges();
  if (temporary) std::filesystem::remove_all(options.directory);
  return result;
}
