// The host's failures: by chance, at a call, from a call on; of memory, threads and files.
#include <algorithm>
#include <new>
#include <set>

#include "SimTestTools.h"

namespace Orvane {
namespace {

using SimulatorFaultTest = SimulatorTestBase;

// Not one that the compiler leaves out.
void Allocate() {
  ::operator delete(::operator new(8));
}

// The address sanitizer would end the process.
#if defined(__clang__) || defined(__GNUC__)
__attribute__((no_sanitize("address")))
#endif
void WriteUnseen(unsigned char* place) {
  *place = 1;
}

// Ten locks; answers which of them could not be made.
std::vector<int> LocksThatFail(const SimulationSetup& setup) {
  std::vector<int> failed;
  const SimulationResult result = Simulator::Run(setup, [&failed] {
    for (int k = 1; k <= 10; ++k) {
      try {
        delete MTInterface::NewCritSec();
      } catch (const std::bad_alloc&) {
        const SimulatorAllocations::Exempt exempt;
        failed.push_back(k);
      }
    }
  });
  EXPECT_TRUE(result.ok) << result.report;
  EXPECT_EQ(result.faults, failed.size());
  return failed;
}

TEST_F(SimulatorFaultTest, WhoWritesBehindPagesIsFound) {
  const SimulationResult result = Simulator::Run(PlainSetup(), [] {
    Buffer* const buffer = PhysMemInterface::Allocate(kSimPage);
    WriteUnseen(static_cast<unsigned char*>(buffer->GetAddress()) + kSimPage);
    ReleaseObject(buffer);
  });
  EXPECT_NE(result.failure.find("wrote behind memory"), std::string::npos) << result.failure;
}

TEST_F(SimulatorFaultTest, ByChance) {
  std::set<std::vector<int>> different;
  std::size_t all = 0;
  for (std::uint64_t seed = 1; seed <= 50; ++seed) {
    SimulationSetup setup = PlainSetup(seed);
    EXPECT_TRUE(LocksThatFail(setup).empty());
    setup.faults.failPrimitive = 300;
    const std::vector<int> failed = LocksThatFail(setup);
    EXPECT_EQ(failed, LocksThatFail(setup));
    different.insert(failed);
    all += failed.size();
  }
  // 150 of 500.
  EXPECT_GT(all, 110u);
  EXPECT_LT(all, 190u);
  EXPECT_GT(different.size(), 30u);
}

TEST_F(SimulatorFaultTest, AtACallAndFromThereOn) {
  SimulationSetup setup = PlainSetup();
  for (int call = 1; call <= 10; ++call) {
    setup.faults.failCall = static_cast<std::uint64_t>(call);
    setup.faults.andAllLater = false;
    EXPECT_EQ(LocksThatFail(setup), std::vector<int>{call});
    setup.faults.andAllLater = true;
    std::vector<int> later;
    for (int k = call; k <= 10; ++k) later.push_back(k);
    EXPECT_EQ(LocksThatFail(setup), later);
  }
  setup.faults.failCall = 11;
  EXPECT_TRUE(LocksThatFail(setup).empty());
}

TEST_F(SimulatorFaultTest, CallsAreCounted) {
  const SimulationResult result = Simulator::Run(PlainSetup(), [] {
    delete MTInterface::NewCritSec();
    ReleaseObject(PhysMemInterface::Allocate(kSimPage));  // the pages, a lock, two counts
  });
  ExpectGood(result);
  EXPECT_EQ(result.hostCalls, 5u);
  EXPECT_EQ(result.faults, 0u);
}

TEST_F(SimulatorFaultTest, Allocations) {
  SimulationSetup setup = PlainSetup();
  for (int call = 0; call <= 6; ++call) {
    std::vector<int> failed;
    setup.faults.failAllocationCall = static_cast<std::uint64_t>(call);
    const SimulationResult result = Simulator::Run(setup, [&failed] {
      for (int k = 1; k <= 5; ++k) {
        try {
          Allocate();
        } catch (const std::bad_alloc&) {
          const SimulatorAllocations::Exempt exempt;
          failed.push_back(k);
        }
        const SimulatorAllocations::Exempt exempt;
        Allocate();
      }
    });
    ExpectGood(result);
    EXPECT_EQ(result.allocations, 5u);
    EXPECT_EQ(failed, call >= 1 && call <= 5 ? std::vector<int>{call} : std::vector<int>());
  }
}

TEST_F(SimulatorFaultTest, AnAllocationIsAPlaceToSwitch) {
  const auto race = [] {
    int value = 0;
    const auto add = [&value] {
      const int before = value;
      Allocate();
      value = before + 1;
    };
    RunTogether({add, add});
    if (value != 2) Simulator::Fail("an addition is lost");
  };
  SimulationSetup setup = PlainSetup();
  ExpectGood(Simulator::Explore(setup, 200, race));
  setup.allocationsAreSteps = true;
  EXPECT_FALSE(Simulator::Explore(setup, 200, race).ok);
}

TEST_F(SimulatorFaultTest, ThreadsThatCannotBeStarted) {
  SimulationSetup setup = PlainSetup();
  setup.faults.failThread = 1000;
  bool refused = false;
  ExpectGood(Simulator::Run(setup, [&refused] {
    const auto body = [](MTThread*) {};
    BodyOf<decltype(body)> nothing(body);
    try {
      delete MTInterface::NewThread(&nothing, MTThread::kPriorityNormal, MTThread::kProcessorAny);
    } catch (const char* text) {
      refused = std::string(text) == "MTInterface Unable To Construct Object";
    }
  }));
  EXPECT_TRUE(refused);
}

TEST_F(SimulatorFaultTest, PagesThatCannotBeHad) {
  SimulationSetup setup = PlainSetup();
  setup.faults.failPages = 1000;
  ExpectGood(Simulator::Run(setup, [] {
    if (PhysMemInterface::Allocate(kSimPage)) Simulator::Fail("there are pages");
    Simulator::StopFaults();
    Buffer* const buffer = PhysMemInterface::Allocate(kSimPage);
    if (!buffer) Simulator::Fail("there are no pages");
    ReleaseObject(buffer);
    if (Simulator::GetFaults() != 1) Simulator::Fail("counted wrongly");
  }));
}

TEST_F(SimulatorFaultTest, AFileThatCannotBeOpened) {
  SimulationSetup setup = PlainSetup();
  setup.faults.failOpen = 1000;
  ExpectGood(Simulator::Run(setup, [] {
    SimulatedFiles::Create("file", SimContent(kSimPage));
    NativeFileSource* const file = NativeFileSysInterface::NewNativeFileSource("file");
    Buffer* const buffer = PhysMemInterface::Allocate(kSimPage);
    if (!file->Open(true, false, false)) Simulator::Fail("not represented");
    if (file->Read(0, buffer, nullptr) != CacheSource::kResultError) Simulator::Fail("it works");
    ReleaseObject(buffer);
    ReleaseObject(file);
  }));
}

TEST_F(SimulatorFaultTest, TheFilesOfAWorld) {
  ExpectGood(Simulator::Run(PlainSetup(), [] {
    if (SimulatedFiles::Exists("file")) Simulator::Fail("it is there before");
    NativeFileSource* const file = NativeFileSysInterface::NewNativeFileSource("file");
    file->Open(true, true, true);
    if (!SimulatedFiles::Exists("file")) Simulator::Fail("it is not created");
    Buffer* const buffer = PhysMemInterface::Allocate(kSimPage);
    const std::vector<unsigned char> content = SimContent(kSimPage);
    buffer->CopyInto(const_cast<unsigned char*>(content.data()), kSimPage, 0, nullptr);
    if (file->Write(kSimPage, buffer, nullptr) != CacheSource::kResultOK) Simulator::Fail("write");
    std::vector<unsigned char> expected(kSimPage);
    expected.insert(expected.end(), content.begin(), content.end());
    if (SimulatedFiles::Read("file") != expected) Simulator::Fail("other bytes");
    SimulatedFiles::Resize("file", kSimPage);
    if (SimulatedFiles::Read("file").size() != kSimPage) Simulator::Fail("not resized");
    if (file->Read(kSimPage, buffer, nullptr) != CacheSource::kResultOutOfRange) {
      Simulator::Fail("a read behind the end");
    }
    if (!file->Delete() || SimulatedFiles::Exists("file")) Simulator::Fail("not deleted");
    ReleaseObject(buffer);
    ReleaseObject(file);
  }));
  ExpectGood(Simulator::Run(PlainSetup(), [] {
    if (SimulatedFiles::Exists("file")) Simulator::Fail("it is there in the next world");
  }));
}

TEST_F(SimulatorFaultTest, DebugTextIsKept) {
  ExpectGood(Simulator::Run(PlainSetup(), [] {
    MTInterface::DebugString("one ");
    MTInterface::DebugString("two");
    if (Simulator::TakeDebugText() != "one two") Simulator::Fail("other text");
    if (!Simulator::TakeDebugText().empty()) Simulator::Fail("not taken");
  }));
}

}  // namespace
}  // namespace Orvane
