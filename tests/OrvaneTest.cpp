#include "OrvaneTest.h"

#include <ostream>

#include "Cache/CacheReaper.h"
#include "MTInterface.h"
#include "TestHost.h"
#include "TestPhysMemInterface.h"

namespace Orvane {
namespace {

constexpr std::uint32_t kTeardownMs = 5000;
constexpr std::uint32_t kPollMs = 5;

constexpr int kAttempts = 3;
constexpr std::uint64_t kTooShortToCompare = 5000;  // microseconds
constexpr int kParts = 16;
constexpr std::uint64_t kMostTimesAsLong = 6;

std::string testDirectory;

std::vector<void (*)()>& FunctionsBeforeInit() {
  static std::vector<void (*)()> functions;
  return functions;
}

}  // namespace

const std::string& OrvaneTest::Directory() {
  return testDirectory;
}

void OrvaneTest::SetDirectory(const std::string& directory) {
  testDirectory = directory;
}

std::string OrvaneTest::PathOf(const std::string& name) {
  return testDirectory + "/" + std::to_string(GetProcessNumber()) + "-" + name;
}

bool OrvaneTest::RunBeforeInit(void (*function)()) {
  FunctionsBeforeInit().push_back(function);
  return true;
}

void OrvaneTest::RunAllBeforeInit() {
  for (void (*function)() : FunctionsBeforeInit()) function();
}

OrvaneTest::OrvaneTest() : before_(TestMTInterface::Get().GetLiveCounts()) {}

void OrvaneTest::TearDown() {
  TestMTInterface& mt = TestMTInterface::Get();
  mt.StopFailing();
  TestPhysMemInterface::Get().SetAllocator(nullptr);
  CacheReaper::Stop();
  for (std::uint32_t waited = 0; mt.GetLiveCounts() != before_ && waited < kTeardownMs;
       waited += kPollMs) {
    MTInterface::Sleep(kPollMs);
    CacheReaper::Stop();  // a cache may have been handed over since
  }
  EXPECT_EQ(before_, mt.GetLiveCounts()) << "left behind; before: " << before_.ToString()
                                         << "; after: " << mt.GetLiveCounts().ToString();
}

void PrintTo(const CallSite& site, std::ostream* out) {
  *out << site.file << ", " << site.function << ", " << site.line;
}

::testing::AssertionResult GrowsLinearly(const std::function<void(std::size_t count)>& work,
                                         std::size_t count) {
  const auto time = [&work](int times, std::size_t size) {
    const std::uint64_t start = GetProcessorMicros();
    for (int i = 0; i < times; ++i) work(size);
    return GetProcessorMicros() - start;
  };
  std::uint64_t inParts = 0;
  std::uint64_t whole = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    inParts = time(kParts, count / kParts);
    whole = time(1, count);
    if (whole < kTooShortToCompare ||
        whole < kMostTimesAsLong * (inParts + GetProcessorStepMicros())) {
      return ::testing::AssertionSuccess()
             << "from " << inParts << " to " << whole << " microseconds";
    }
  }
  return ::testing::AssertionFailure() << "from " << inParts << " to " << whole << " microseconds";
}

}  // namespace Orvane
