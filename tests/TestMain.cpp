// orvane_tests [--engine=auto|uring|threads] [--dir=PATH] [--print-lock-order]
//              [options of the test framework]
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <string_view>

#include "Cache/CacheReaper.h"
#include "LockOrderChecker.h"
#include "OSServices.h"
#include "OSServicesHost.h"
#include "OrvaneTest.h"
#include "TestPhysMemInterface.h"

namespace {

using Engine = Orvane::NativeFileSysInterfaceImpHost::Engine;

struct Options {
  std::string engine = "auto";
  std::string directory;
  bool printLockOrder = false;
};

bool TakeOption(std::string_view argument, std::string_view name, std::string* value) {
  if (!argument.starts_with(name)) return false;
  *value = argument.substr(name.size());
  return true;
}

bool ParseOptions(int count, char** arguments, Options* options) {
  for (int i = 1; i < count; ++i) {
    if (TakeOption(arguments[i], "--engine=", &options->engine)) continue;
    if (TakeOption(arguments[i], "--dir=", &options->directory)) continue;
    if (arguments[i] == std::string_view("--print-lock-order")) {
      options->printLockOrder = true;
      continue;
    }
    std::cerr << "unknown argument " << arguments[i] << "\n";
    return false;
  }
  return true;
}

bool ToEngine(const std::string& name, Engine* engine) {
  using Imp = Orvane::NativeFileSysInterfaceImpHost;
  if (name == "auto")
    *engine = Imp::kEngineAuto;
  else if (name == "uring")
    *engine = Imp::kEngineUring;
  else if (name == "threads")
    *engine = Imp::kEngineThreads;
  else
    return false;
  return true;
}

// A directory of the caller's is kept; a temporary one goes at the end.
std::string NewTemporaryDirectory() {
  std::string name = (std::filesystem::temp_directory_path() / "orvane-tests-XXXXXX").string();
  if (!mkdtemp(name.data())) return std::string();
  // Some tests give up the privileges of root.
  std::filesystem::permissions(name, std::filesystem::perms(0755));
  return name;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  Options options;
  Engine engine{};
  if (!ParseOptions(argc, argv, &options)) return 2;
  if (!ToEngine(options.engine, &engine)) {
    std::cerr << "--engine is auto, uring or threads\n";
    return 2;
  }
  const bool temporary = options.directory.empty();
  if (temporary) options.directory = NewTemporaryDirectory();
  std::filesystem::create_directories(options.directory);
  Orvane::OrvaneTest::SetDirectory(options.directory);

  Orvane::OrvaneTest::RunAllBeforeInit();
  Orvane::OSServices::InitWithExtensions(&Orvane::TestMTInterface::Get(),
                                         &Orvane::TestPhysMemInterface::Get(),
                                         new Orvane::NativeFileSysInterfaceImpHost(engine));
  // Made once per process, so that no test is held responsible for it.
  Orvane::CacheReaper::Stop();
  std::cout << "engine asked for: " << options.engine
            << ", running: " << Orvane::NativeFileSysInterfaceImpHost::GetEngineName()
            << "; directory: " << options.directory << std::endl;
  const int result = RUN_ALL_TESTS();
  if (options.printLockOrder) std::cout << Orvane::LockOrderChecker::Get().GetEdges();
  if (temporary) std::filesystem::remove_all(options.directory);
  return result;
}
