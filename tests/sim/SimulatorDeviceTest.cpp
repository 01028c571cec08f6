// The device: transfers through the port, without the I/O thread between.
#include <cstring>
#include <set>

#include "OSServices/Sim/AsyncPortSim.h"
#include "OSServices/Sim/SimDevice.h"
#include "OSServices/Sim/SimWorld.h"
#include "SimTestTools.h"

namespace Orvane {
namespace {

using SimulatorDeviceTest = SimulatorTestBase;
using Outcome = AsyncPort::Outcome;
using Started = AsyncPort::Started;

constexpr std::uint64_t kSector = 512;

// A port, a file of two pages and memory for two transfers of one page.
class Bench {
 public:
  explicit Bench(bool exists = true) : port_(SimWorld::Current()) {
    const SimulatorAllocations::Exempt exempt;
    if (exists) SimulatedFiles::Create("file", SimContent(2 * kSimPage));
    file_ = new HostFileSim(SimWorld::Current()->Device().Find("file"), /*forRead=*/true,
                            /*forWrite=*/true);
    for (Buffer*& page : pages_) page = PhysMemInterface::Allocate(kSimPage);
    for (std::size_t k = 0; k < 2; ++k) runs_[k] = {Memory(k), kSimPage};
  }
  ~Bench() {
    port_.Detach();
    for (Buffer* const page : pages_) ReleaseObject(page);
    ReleaseObject(file_);
  }
  Bench(const Bench&) = delete;
  Bench& operator=(const Bench&) = delete;

  AsyncPortSim& Port() { return port_; }
  unsigned char* Memory(std::size_t slot) {
    return static_cast<unsigned char*>(pages_[slot]->GetAddress());
  }
  // So far behind the start of its page, and by so much shorter.
  void MoveMemory(std::size_t slot, std::uint64_t bytes) {
    runs_[slot] = {Memory(slot) + bytes, kSimPage - bytes};
  }
  void Reopen(bool forRead, bool forWrite) {
    ReleaseObject(file_);
    file_ = new HostFileSim(SimWorld::Current()->Device().Find("file"), forRead, forWrite);
  }
  Started Issue(std::uint32_t slot, bool write, std::uint64_t offset) {
    return port_.Issue(
        {slot, 1, write, file_, offset, &runs_[slot], 1, /*segments=*/nullptr, runs_[slot].length});
  }
  AsyncPort::Completion Next() {
    AsyncPort::Completion completion{};
    if (!port_.Wait(kForEver, &completion)) Simulator::Fail("no completion");
    return completion;
  }
  AsyncPort::Completion Transfer(bool write, std::uint64_t offset) {
    if (Issue(0, write, offset) != Started::kInFlight) Simulator::Fail("not started");
    return Next();
  }

 private:
  AsyncPortSim port_;
  HostFileSim* file_;
  Buffer* pages_[2] = {};
  MemoryRun runs_[2] = {};
};

// The good runs of so many seeds.
void ForSeeds(std::uint64_t seeds, const SimulatedFaults& faults,
              const std::function<void()>& scenario) {
  for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
    SimulationSetup setup = PlainSetup(seed);
    setup.faults = faults;
    const SimulationResult result = Simulator::Run(setup, scenario);
    ASSERT_TRUE(result.ok) << result.report;
  }
}

TEST_F(SimulatorDeviceTest, MovesBytesBothWays) {
  ForSeeds(20, {}, [] {
    Bench bench;
    const AsyncPort::Completion read = bench.Transfer(false, kSimPage);
    if (read.outcome != Outcome::kMoved || read.bytes != kSimPage) Simulator::Fail("read");
    const auto content = SimContent(2 * kSimPage);
    if (std::memcmp(bench.Memory(0), content.data() + kSimPage, kSimPage) != 0) {
      Simulator::Fail("other bytes in memory");
    }
    if (bench.Transfer(true, 0).outcome != Outcome::kMoved) Simulator::Fail("write");
    if (std::memcmp(SimulatedFiles::Read("file").data(), bench.Memory(0), kSimPage) != 0) {
      Simulator::Fail("other bytes in the file");
    }
  });
}

TEST_F(SimulatorDeviceTest, CompletionsComeInAnyOrder) {
  std::set<std::uint32_t> first;
  ForSeeds(40, {}, [&first] {
    Bench bench;
    bench.Issue(0, false, 0);
    bench.Issue(1, false, kSimPage);
    const std::uint32_t slot = bench.Next().slot;
    if (bench.Next().slot != 1 - slot) Simulator::Fail("one completion each");
    const SimulatorAllocations::Exempt exempt;
    first.insert(slot);
  });
  EXPECT_EQ(first.size(), 2u);
}

TEST_F(SimulatorDeviceTest, ShortTransfers) {
  SimulatedFaults faults;
  faults.shortTransfer = 1000;
  for (const bool write : {false, true}) {
    std::set<std::uint64_t> lengths;
    ForSeeds(60, faults, [&lengths, write] {
      Bench bench;
      const AsyncPort::Completion completion = bench.Transfer(write, 0);
      if (completion.outcome != Outcome::kMoved) Simulator::Fail("failed");
      const SimulatorAllocations::Exempt exempt;
      lengths.insert(completion.bytes);
    });
    // Whole sectors, and never all of them.
    EXPECT_EQ(lengths.size(), kSimPage / kSector - 1);
    EXPECT_EQ(*lengths.begin(), kSector);
    EXPECT_EQ(*lengths.rbegin(), kSimPage - kSector);
  }
}

TEST_F(SimulatorDeviceTest, LateErrorsLeaveAPartOfAWrite) {
  SimulatedFaults faults;
  faults.failTransfer = 1000;
  std::set<std::uint64_t> changed;
  ForSeeds(40, faults, [&changed] {
    Bench bench;
    std::memset(bench.Memory(0), 0, kSimPage);
    const AsyncPort::Completion completion = bench.Transfer(true, 0);
    if (completion.outcome != Outcome::kFailed || completion.bytes != 0) Simulator::Fail("outcome");
    const std::vector<unsigned char> now = SimulatedFiles::Read("file");
    const SimulatorAllocations::Exempt exempt;
    const auto before = SimContent(2 * kSimPage);
    std::uint64_t bytes = 0;
    for (std::size_t k = 0; k < now.size(); ++k) bytes += now[k] != before[k] ? 1U : 0U;
    changed.insert(bytes);
  });
  // Nothing, or some of it.
  EXPECT_EQ(*changed.begin(), 0u);
  EXPECT_GT(changed.size(), 10u);
}

TEST_F(SimulatorDeviceTest, LateErrorsLeaveAPartOfARead) {
  SimulatedFaults faults;
  faults.failTransfer = 1000;
  std::set<std::uint64_t> changed;
  ForSeeds(40, faults, [&changed] {
    Bench bench;
    std::memset(bench.Memory(0), 0, kSimPage);
    if (bench.Transfer(false, 0).outcome != Outcome::kFailed) Simulator::Fail("outcome");
    const SimulatorAllocations::Exempt exempt;
    std::uint64_t bytes = 0;
    for (std::size_t k = 0; k < kSimPage; ++k) bytes += bench.Memory(0)[k] != 0 ? 1U : 0U;
    changed.insert(bytes);
  });
  EXPECT_EQ(*changed.begin(), 0u);
  EXPECT_GT(changed.size(), 10u);
}

TEST_F(SimulatorDeviceTest, UnbufferedTransfersAreOfWholeSectorsInMemory) {
  ForSeeds(3, {}, [] {
    Bench bench;
    bench.MoveMemory(0, 1);
    if (bench.Transfer(false, 0).outcome != Outcome::kRefused) Simulator::Fail("not refused");
    bench.MoveMemory(0, kSector);
    if (bench.Transfer(false, 0).outcome != Outcome::kMoved) Simulator::Fail("refused");
  });
}

TEST_F(SimulatorDeviceTest, AFileOpenForReadingIsNotWritten) {
  ForSeeds(3, {}, [] {
    Bench bench;
    bench.Reopen(/*forRead=*/true, /*forWrite=*/false);
    std::memset(bench.Memory(0), 0, kSimPage);
    if (bench.Transfer(true, 0).outcome != Outcome::kFailed) Simulator::Fail("written");
    if (SimulatedFiles::Read("file") != SimContent(2 * kSimPage)) Simulator::Fail("changed");
    if (bench.Transfer(false, 0).outcome != Outcome::kMoved) Simulator::Fail("not read");
    bench.Reopen(/*forRead=*/false, /*forWrite=*/true);
    if (bench.Transfer(false, 0).outcome != Outcome::kFailed) Simulator::Fail("read");
  });
}

TEST_F(SimulatorDeviceTest, AFileThatWasDeletedDoesNotHangForEver) {
  ForSeeds(3, {}, [] {
    Bench bench;
    SimulatedFiles::SetHanging("file", true);
    bench.Issue(0, false, 0);
    SimWorld::Current()->Device().Delete("file");
    Simulator::StopFaults();
    bench.Next();
  });
}

TEST_F(SimulatorDeviceTest, AnyLatencyCanBeSet) {
  SimulationSetup setup = PlainSetup();
  setup.maxSeconds = ~std::uint64_t{0};
  ExpectGood(Simulator::Run(setup, [] {
    SimulatedFiles::SetLatency(~std::uint64_t{0});
    Bench bench;
    bench.Transfer(false, 0);
  }));
}

TEST_F(SimulatorDeviceTest, ErrorsAtOnce) {
  SimulatedFaults faults;
  faults.failIssue = 1000;
  ForSeeds(5, faults, [] {
    Bench bench;
    if (bench.Issue(0, false, 0) != Started::kFailed) Simulator::Fail("started");
    AsyncPort::Completion completion{};
    if (bench.Port().Wait(0, &completion)) Simulator::Fail("and a completion");
  });
}

TEST_F(SimulatorDeviceTest, UnevenTransfersAreRefused) {
  ForSeeds(5, {}, [] {
    Bench bench;
    if (bench.Transfer(false, 100).outcome != Outcome::kRefused) Simulator::Fail("not refused");
  });
}

TEST_F(SimulatorDeviceTest, TheEndOfAFile) {
  int atOnce = 0;
  int late = 0;
  int nothing = 0;
  ForSeeds(60, {}, [&] {
    Bench bench;
    SimulatedFiles::Resize("file", kSimPage + kSector);
    const AsyncPort::Completion rest = bench.Transfer(false, kSimPage);
    if (rest.outcome != Outcome::kMoved || rest.bytes != kSector) Simulator::Fail("the rest");
    if (bench.Issue(0, false, 2 * kSimPage) == Started::kEndOfFile) {
      ++atOnce;
      return;
    }
    const AsyncPort::Completion completion = bench.Next();
    if (completion.bytes != 0) Simulator::Fail("bytes behind the end");
    (completion.outcome == Outcome::kEndOfFile ? late : nothing) += 1;
  });
  EXPECT_GT(atOnce, 5);
  EXPECT_GT(late, 5);
  EXPECT_GT(nothing, 5);
}

TEST_F(SimulatorDeviceTest, AFullDisk) {
  ForSeeds(10, {}, [] {
    Bench bench;
    SimulatedFiles::SetCapacity(3 * kSimPage);
    if (bench.Transfer(true, 2 * kSimPage).outcome != Outcome::kMoved) Simulator::Fail("room");
    if (bench.Transfer(true, 3 * kSimPage).outcome != Outcome::kFailed) Simulator::Fail("no room");
    if (bench.Transfer(true, 0).outcome != Outcome::kMoved) Simulator::Fail("takes no room");
    if (SimulatedFiles::Read("file").size() != 3 * kSimPage) Simulator::Fail("the size");
  });
}

TEST_F(SimulatorDeviceTest, LostWrites) {
  SimulatedFaults faults;
  faults.loseWrite = 1000;
  ForSeeds(10, faults, [] {
    Bench bench;
    std::memset(bench.Memory(0), 0, kSimPage);
    const AsyncPort::Completion completion = bench.Transfer(true, 0);
    if (completion.outcome != Outcome::kMoved || completion.bytes != kSimPage) {
      Simulator::Fail("it shows");
    }
    if (SimulatedFiles::Read("file") != SimContent(2 * kSimPage)) Simulator::Fail("not lost");
    if (SimulatedFiles::GetLostWrites() != 1) Simulator::Fail("not counted");
  });
}

TEST_F(SimulatorDeviceTest, HangingUntilCancelled) {
  int slow = 0;
  ForSeeds(40, {}, [&slow] {
    Bench bench;
    SimulatedFiles::SetHanging("file", true);
    bench.Issue(0, false, 0);
    AsyncPort::Completion completion{};
    if (bench.Port().Wait(3600000, &completion)) Simulator::Fail("it ends");
    const std::uint64_t cancelled = Simulator::GetTimeMicro();
    bench.Port().Cancel(0, 2);  // of another generation: nobody
    if (bench.Port().Wait(1000, &completion)) Simulator::Fail("the wrong one is cancelled");
    bench.Port().Cancel(0, 1);
    if (bench.Next().outcome != Outcome::kFailed) Simulator::Fail("and moves bytes");
    slow += Simulator::GetTimeMicro() > cancelled + 1000000 ? 1 : 0;
  });
  EXPECT_GT(slow, 3);
  ForSeeds(5, {}, [] {
    Bench bench;
    SimulatedFiles::SetHanging("file", true);
    bench.Issue(0, false, 0);
    SimulatedFiles::SetHanging("file", false);
    if (bench.Next().outcome != Outcome::kMoved) Simulator::Fail("it fails");
  });
}

TEST_F(SimulatorDeviceTest, HangingByChance) {
  SimulatedFaults faults;
  faults.hang = 1000;
  std::uint64_t longest = 0;
  ForSeeds(30, faults, [&longest] {
    Bench bench;
    const std::uint64_t start = Simulator::GetTimeMicro();
    if (bench.Transfer(false, 0).outcome != Outcome::kFailed) Simulator::Fail("it works");
    longest = std::max(longest, Simulator::GetTimeMicro() - start);
  });
  EXPECT_GT(longest, 100000u);
  EXPECT_LE(longest, 200000u);
}

TEST_F(SimulatorDeviceTest, ACancelMayBeTooLate) {
  int moved = 0;
  int failed = 0;
  ForSeeds(60, {}, [&] {
    Bench bench;
    SimulatedFiles::SetLatency(0);
    bench.Issue(0, false, 0);
    bench.Port().Cancel(0, 1);
    (bench.Next().outcome == Outcome::kMoved ? moved : failed) += 1;
  });
  EXPECT_GT(moved, 5);
  EXPECT_GT(failed, 5);
}

TEST_F(SimulatorDeviceTest, MemoryIsTheDevicesUntilTheCompletionIsCollected) {
  ForSeeds(10, {}, [] {
    Bench bench;
    bench.Issue(0, false, 0);
    Simulator::Settle();  // it has happened, and nobody has looked
    std::memset(bench.Memory(0), 0, kSimPage);
    bench.Next();
    if (std::memcmp(bench.Memory(0), SimContent(kSimPage).data(), kSimPage) != 0) {
      Simulator::Fail("the memory was left alone");
    }
    std::memset(bench.Memory(0), 1, kSimPage);
    bench.Issue(0, true, 0);
    Simulator::Settle();
    std::memset(bench.Memory(0), 2, kSimPage);
    bench.Next();
    if (SimulatedFiles::Read("file")[0] != 2) Simulator::Fail("the memory was not looked at");
  });
}

TEST_F(SimulatorDeviceTest, ATransferThatNobodyCollectsIsFound) {
  ExpectFailure(PlainSetup(), "the port is detached while transfers are in flight", [] {
    Bench bench;
    bench.Issue(0, false, 0);
  });
}

TEST_F(SimulatorDeviceTest, LatencyIsALimit) {
  std::set<std::uint64_t> times;
  ForSeeds(60, {}, [&times] {
    Bench bench;
    SimulatedFiles::SetLatency(1000);
    const std::uint64_t start = Simulator::GetTimeMicro();
    bench.Transfer(false, 0);
    const SimulatorAllocations::Exempt exempt;
    times.insert(Simulator::GetTimeMicro() - start);
  });
  EXPECT_EQ(*times.begin(), 0u);
  EXPECT_GT(*times.rbegin(), 700u);
  EXPECT_LE(*times.rbegin(), 1000u);
}

}  // namespace
}  // namespace Orvane
