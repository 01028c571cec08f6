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
constexpr std::uint64_t kMostTimesAsLong = 100;

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
  const auto time = [&work](std::size_t size) {
    const std::uint64_t start = GetProcessorMicros();
    work(size);
    return GetProcessorMicros() - start;
  };
  std::uint64_t few = 0;
  std::uint64_t many = 0;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    few = time(count / 16);
    many = time(count);
    if (many < kTooShortToCompare || many < kMostTimesAsLong * few) {
      return ::testing::AssertionSuccess() << "from " << few << " to " << many << " microseconds";
    }
  }
  return ::testing::AssertionFailure() << "from " << few << " to " << many << " microseconds";
}

}  // namespace Orvane
