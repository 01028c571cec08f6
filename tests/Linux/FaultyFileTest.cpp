// Native files on a device that fails, stops short, or takes its time.
#include <fcntl.h>

#include <atomic>
#include <thread>

#include "BufferFactory.h"
#include "Cache.h"
#include "FaultyFileSystem.h"
#include "FileTestTools.h"
#include "LinuxDescriptors.h"
#include "LinuxFileTools.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

using Source = AutoRelease<NativeFileSource>;
using Faulty = FaultyFileSystem;

// Fewer than the kernel lets wait in the background of one such file system.
constexpr std::size_t kHeldAtOnce = 10;

class FaultyFileTest : public OrvaneTest {
 protected:
  FaultyFileTest() : memory_(2 * Faulty::kSize) {}

  void SetUp() override {
    OrvaneTest::SetUp();
    if (!EnterPrivateMounts()) GTEST_SKIP() << "without CAP_SYS_ADMIN nothing can be mounted";
    system_ = std::make_unique<Faulty>();
    if (!system_->IsMounted()) GTEST_SKIP() << "no /dev/fuse: nothing serves the faulty files";
  }
  void TearDown() override {
    if (system_) system_->ReleaseHeld();
    OrvaneTest::TearDown();
    system_.reset();
  }

  NativeFileSource* OpenFile(const std::string& name) {
    return OpenSource(system_->PathOf(name), OpenFor::kReadAndWrite);
  }
  Pieces Whole() const { return {{memory_.At(), Faulty::kSize}}; }
  Pieces Scattered() const { return ScatteredPagesOf(memory_); }
  bool HoldPattern(const Pieces& pieces, std::uint64_t size) const {
    std::uint64_t position = 0;
    for (const auto& [address, length] : pieces) {
      const std::uint64_t count = std::min<std::uint64_t>(length, size - position);
      if (!HasPattern(address, static_cast<std::size_t>(count), position)) return false;
      position += count;
    }
    return position == size;
  }
  CacheSource::Result_t Start(FileSource* source, bool write, std::size_t page,
                              FileSource::ResultCallbackBufferList* callback) {
    const AutoRelease<BufferList> list(NewListOf({{memory_.At(page * Page()), Page()}}));
    return write ? source->WriteAsyncWithList(page * Page(), list, callback, CacheSource::kDueASAP)
                 : source->ReadAsyncWithList(page * Page(), list, callback, CacheSource::kDueASAP);
  }
  // Runs `action` on the I/O thread, which is then sure to be in it when the device lets go, and
  // expects it to return no earlier.
  void ReleaseWhile(const std::function<void()>& action, Reports* reports) {
    std::atomic<bool> entered{false};
    std::atomic<bool> returned{false};
    BusyIoThread busy;
    busy.BeforeLettingGo([&] {
      entered = true;
      action();
      returned = true;
    });
    std::thread letGo([&] { busy.LetGo(); });
    EXPECT_TRUE(Eventually([&] { return entered.load(); }));
    Dawdle();
    EXPECT_FALSE(returned);
    EXPECT_EQ(0u, reports->Count());
    system_->ReleaseHeld();
    letGo.join();
  }
  // Gives wrong code a chance to be too early; right code does not depend on it.
  static void Dawdle() { std::this_thread::sleep_for(std::chrono::milliseconds(50)); }

  const Memory memory_;
  std::unique_ptr<Faulty> system_;
};

TEST_F(FaultyFileTest, AGoodFileIsReadAndWritten) {
  const Source source(OpenFile("plain"));
  EXPECT_EQ((Outcome{kOK, Faulty::kSize}), ReadInto(source, 0, Whole()));
  EXPECT_TRUE(HoldPattern(Whole(), Faulty::kSize));
  EXPECT_EQ((Outcome{kOK, Faulty::kSize}), ReadInto(source, 0, Scattered()));
  EXPECT_TRUE(HoldPattern(Scattered(), Faulty::kSize));
  EXPECT_EQ((Outcome{kOK, Faulty::kSize}), WriteFrom(source, 0, Scattered()));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, Faulty::kSize, Whole()));
}

TEST_F(FaultyFileTest, FailedTransfersAreErrorsWithoutBytes) {
  const Source source(OpenFile("eio"));
  EXPECT_EQ((Outcome{kError, 0}), ReadInto(source, 0, Whole()));
  EXPECT_EQ((Outcome{kError, 0}), WriteFrom(source, 0, Scattered()));
  const AutoRelease<Reports> reports(new Reports);
  ASSERT_EQ(kPending, Start(source, /*write=*/false, 0, reports));
  ASSERT_EQ(kPending, Start(source, /*write=*/true, 1, reports));
  EXPECT_EQ(std::vector<Outcome>(2, {kError, 0}), reports->WaitFor(2));
  source->Close();
  EXPECT_EQ(2u, reports->Count());
}

TEST_F(FaultyFileTest, AReadThatFailsOnItsWayCountsNoByteBehindTheFailure) {
  const Source source(OpenFile("eio-later"));
  for (const Pieces& pieces : {Whole(), Scattered()}) {
    memory_.FillWith(0);
    const Outcome outcome = ReadInto(source, 0, pieces);
    EXPECT_EQ(kError, outcome.result);
    EXPECT_LE(outcome.bytes, Faulty::kGoodBytes);
    EXPECT_TRUE(HoldPattern(pieces, outcome.bytes));
  }
  EXPECT_EQ((Outcome{kOK, 8 * Page()}), ReadInto(source, 0, {{memory_.At(), 8 * Page()}}));
  EXPECT_EQ((Outcome{kError, 0}), ReadInto(source, 13 * Page(), {{memory_.At(), Page()}}));
}

TEST_F(FaultyFileTest, AFullDeviceFailsTheWriteBehindWhatItTook) {
  const Source source(OpenFile("full"));
  for (const Pieces& pieces : {Whole(), Scattered()}) {
    const Outcome outcome = WriteFrom(source, 0, pieces);
    EXPECT_EQ(kError, outcome.result);
    EXPECT_LE(outcome.bytes, Faulty::kGoodBytes);
  }
  EXPECT_EQ((Outcome{kOK, 8 * Page()}), WriteFrom(source, 0, {{memory_.At(), 8 * Page()}}));
  EXPECT_EQ((Outcome{kError, 0}), WriteFrom(source, 13 * Page(), {{memory_.At(), Page()}}));
}

TEST_F(FaultyFileTest, ShortTransfersAreContinued) {
  const Source source(OpenFile("short"));
  for (const Pieces& pieces : {Whole(), Scattered()}) {
    memory_.FillWith(0);
    EXPECT_EQ((Outcome{kOK, Faulty::kSize}), ReadInto(source, 0, pieces));
    EXPECT_TRUE(HoldPattern(pieces, Faulty::kSize));
    // The kernel itself fails an asynchronous write that such a file system cuts short.
    const Outcome write = WriteFrom(source, 0, pieces);
    EXPECT_TRUE(write == (Outcome{kOK, Faulty::kSize}) || write == (Outcome{kError, 0}));
  }
}

// Unbuffered transfers start on pages, so such a device may be stuck in the first one.
TEST_F(FaultyFileTest, TransfersShorterThanAPageAreReportedWithExactlyTheirBytes) {
  const Source source(OpenFile("tiny"));
  for (const Pieces& pieces : {Whole(), Scattered()}) {
    memory_.FillWith(0);
    const Outcome outcome = ReadInto(source, 0, pieces);
    EXPECT_EQ(outcome.bytes == Faulty::kSize ? kOK : kPartial, outcome.result);
    EXPECT_TRUE(outcome.bytes == Faulty::kSize || outcome.bytes == Faulty::kTinyBytes);
    EXPECT_TRUE(HoldPattern(pieces, outcome.bytes));
  }
}

TEST_F(FaultyFileTest, BufferedTransfersShorterThanAPageAreContinued) {
  const Source source(OpenFile("buffered-tiny"));
  for (const Pieces& pieces : {Whole(), Scattered()}) {
    memory_.FillWith(0);
    EXPECT_EQ((Outcome{kOK, Faulty::kSize}), ReadInto(source, 0, pieces));
    EXPECT_TRUE(HoldPattern(pieces, Faulty::kSize));
  }
}

TEST_F(FaultyFileTest, AReadThatMovesNothingIsTheEnd) {
  const Source source(OpenFile("nothing"));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, 0, Whole()));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, Page(), Scattered()));
}

TEST_F(FaultyFileTest, AFileThatRefusesUnbufferedAccessIsOpenedBuffered) {
  const Source source(OpenFile("buffered"));
  const DescriptorState state = StateOfDescriptorOn(system_->PathOf("buffered"));
  EXPECT_TRUE(state.found);
  EXPECT_FALSE(state.flags & O_DIRECT);
  EXPECT_TRUE(state.flags & O_DSYNC);
  EXPECT_EQ((Outcome{kOK, Faulty::kSize}), ReadInto(source, 0, Scattered()));
  EXPECT_TRUE(HoldPattern(Scattered(), Faulty::kSize));
  EXPECT_EQ((Outcome{kOK, Faulty::kSize}), WriteFrom(source, 0, Scattered()));
}

TEST_F(FaultyFileTest, CancelWaitsUntilTheDeviceHasLetGo) {
  for (const bool write : {false, true}) {
    system_->HoldAgain();
    const Source source(OpenFile("held"));
    const AutoRelease<Reports> reports(new Reports);
    ASSERT_EQ(kPending, Start(source, write, 0, reports));
    ASSERT_TRUE(system_->AwaitHeld(1));
    ReleaseWhile([&] { source->Cancel(); }, reports);
    EXPECT_EQ(std::vector<Outcome>({{kFailed, 0}}), reports->WaitFor(1));
    // Nothing writes to the memory of a reported request.
    memory_.FillWith(0xA5);
    Dawdle();
    EXPECT_TRUE(memory_.IsFilledWith(0xA5, 0, 8 * Page()));
  }
}

TEST_F(FaultyFileTest, CloseAndReleaseWaitUntilTheDeviceHasLetGo) {
  for (const bool release : {false, true}) {
    system_->HoldAgain();
    Source source(OpenFile("held"));
    const AutoRelease<Reports> reports(new Reports);
    for (std::size_t page = 0; page < kHeldAtOnce; ++page) {
      ASSERT_EQ(kPending, Start(source, /*write=*/false, page, reports));
    }
    ASSERT_TRUE(system_->AwaitHeld(1));
    ReleaseWhile(
        [&] {
          if (release)
            source.Release();
          else
            source->Close();
        },
        reports);
    EXPECT_EQ(std::vector<Outcome>(kHeldAtOnce, {kFailed, 0}), reports->WaitFor(kHeldAtOnce));
  }
}

// The same from a thread of the application, which may be late: some may have been carried out.
TEST_F(FaultyFileTest, CloseFromAnotherThreadReturnsAfterTheLastReport) {
  const Source source(OpenFile("held"));
  const AutoRelease<Reports> reports(new Reports);
  for (std::size_t page = 0; page < 20; ++page) {
    ASSERT_EQ(kPending, Start(source, page % 2 == 0, page, reports));
  }
  ASSERT_TRUE(system_->AwaitHeld(1));
  std::size_t reportedAtReturn = 0;
  std::atomic<bool> returned{false};
  std::thread closer([&] {
    source->Close();
    reportedAtReturn = reports->Count();
    returned = true;
  });
  Dawdle();
  // What the device does not have yet may be reported already.
  EXPECT_FALSE(returned);
  EXPECT_LT(reports->Count(), 20u);
  system_->ReleaseHeld();
  closer.join();
  EXPECT_EQ(20u, reportedAtReturn);
  for (const Outcome& outcome : reports->WaitFor(20)) {
    EXPECT_TRUE(outcome == (Outcome{kOK, Page()}) || outcome == (Outcome{kFailed, 0}));
  }
}

TEST_F(FaultyFileTest, CancelOfADeviceThatCanBeInterruptedEnds) {
  const Source source(OpenFile("interruptible"));
  const AutoRelease<Reports> reports(new Reports);
  ASSERT_EQ(kPending, Start(source, /*write=*/false, 0, reports));
  ASSERT_TRUE(system_->AwaitHeld(1));
  std::atomic<bool> entered{false};
  BusyIoThread busy;
  busy.BeforeLettingGo([&] {
    entered = true;
    source->Cancel();
  });
  std::thread letGo([&] { busy.LetGo(); });
  EXPECT_TRUE(Eventually([&] { return entered.load(); }));
  Dawdle();
  // An engine that cannot interrupt waits for this.
  system_->ReleaseHeld();
  letGo.join();
  EXPECT_EQ(std::vector<Outcome>({{kFailed, 0}}), reports->WaitFor(1));
}

TEST_F(FaultyFileTest, SixtyOneInFlightAreAcceptedAndTheNextIsRefusedUntilTheDeviceAnswers) {
  const Source source(OpenFile("held"));
  const AutoRelease<Reports> reports(new Reports);
  for (std::size_t page = 0; page < kRequestSlots; ++page) {
    ASSERT_EQ(kPending, Start(source, /*write=*/false, page, reports)) << page;
  }
  ASSERT_TRUE(system_->AwaitHeld(1));
  EXPECT_EQ(kBusy, Start(source, /*write=*/false, 61, reports));
  EXPECT_EQ((Outcome{kBusy, kUntouched}), ReadInto(source, 0, Whole()));
  system_->ReleaseHeld();
  EXPECT_EQ(std::vector<Outcome>(kRequestSlots, {kOK, Page()}), reports->WaitFor(kRequestSlots));
  EXPECT_TRUE(HasPattern(memory_.At(), kRequestSlots * Page(), 0));
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
}

TEST_F(FaultyFileTest, CancelOfManyInFlightReportsEachOnce) {
  const Source source(OpenFile("held"));
  const AutoRelease<Reports> reports(new Reports);
  for (std::size_t page = 0; page < kHeldAtOnce; ++page) {
    ASSERT_EQ(kPending, Start(source, page % 2 == 0, page, reports)) << page;
  }
  ASSERT_TRUE(system_->AwaitHeld(1));
  ReleaseWhile([&] { source->Cancel(); }, reports);
  EXPECT_EQ(std::vector<Outcome>(kHeldAtOnce, {kFailed, 0}), reports->WaitFor(kHeldAtOnce));
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
  EXPECT_EQ(kHeldAtOnce, reports->Count());
}

TEST_F(FaultyFileTest, CancelOfAHeldFileLeavesOtherFilesTheirRequests) {
  const Source source(OpenFile("held"));
  const Source other(OpenFile("held"));
  const AutoRelease<Reports> cancelled(new Reports);
  const AutoRelease<Reports> kept(new Reports);
  for (std::size_t page = 0; page < kHeldAtOnce; page += 2) {
    ASSERT_EQ(kPending, Start(source, /*write=*/false, page, cancelled));
    ASSERT_EQ(kPending, Start(other, /*write=*/false, page + 1, kept));
  }
  ASSERT_TRUE(system_->AwaitHeld(1));
  ReleaseWhile([&] { source->CancelNonCached(); }, cancelled);
  EXPECT_EQ(std::vector<Outcome>(kHeldAtOnce / 2, {kFailed, 0}),
            cancelled->WaitFor(kHeldAtOnce / 2));
  EXPECT_EQ(std::vector<Outcome>(kHeldAtOnce / 2, {kOK, Page()}), kept->WaitFor(kHeldAtOnce / 2));
}

// While the device is busy, the other requests of the process go on.
TEST_F(FaultyFileTest, AHeldReadDoesNotStopOtherFiles) {
  const TestFile file("meanwhile");
  ASSERT_TRUE(file.FillWithPattern(0, 8 * Page()));
  const Source held(OpenFile("held"));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  ASSERT_EQ(kPending, Start(held, /*write=*/false, 20, reports));
  ASSERT_TRUE(system_->AwaitHeld(1));
  for (int round = 0; round < 50; ++round) {
    ASSERT_EQ((Outcome{kOK, 8 * Page()}), ReadInto(source, 0, {{memory_.At(), 8 * Page()}}));
  }
  EXPECT_EQ(0u, reports->Count());
  system_->ReleaseHeld();
  EXPECT_EQ(std::vector<Outcome>({{kOK, Page()}}), reports->WaitFor(1));
}

// As above with more than the kernel keeps in the background: whoever starts one more waits, which
// must not be the one I/O thread.
TEST_F(FaultyFileTest, ManyHeldReadsDoNotStopOtherFiles) {
  if (NativeFileSysInterfaceImpHost::GetEngine() == NativeFileSysInterfaceImpHost::kEngineThreads) {
    GTEST_SKIP() << "8 blocking threads cannot pass 10 held reads: only io_uring promises it";
  }
  const TestFile file("meanwhile");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source held(OpenFile("held"));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  const AutoRelease<Reports> heldReports(new Reports);
  for (std::size_t page = 1; page <= 20; ++page) {
    ASSERT_EQ(kPending, Start(held, /*write=*/false, page, heldReports));
  }
  ASSERT_TRUE(system_->AwaitHeld(1));
  const AutoRelease<Reports> reports(new Reports);
  ASSERT_EQ(kPending, Start(source, /*write=*/false, 0, reports));
  EXPECT_TRUE(Eventually([&] { return reports->Count() == 1; }));
  EXPECT_EQ(0u, heldReports->Count());
  system_->ReleaseHeld();
  EXPECT_EQ(std::vector<Outcome>(20, {kOK, Page()}), heldReports->WaitFor(20));
  EXPECT_EQ(std::vector<Outcome>({{kOK, Page()}}), reports->WaitFor(1));
}

// Behind a cache.

class FaultyFileCacheTest : public FaultyFileTest {
 protected:
  static constexpr std::size_t kBlocks = 16;

  // One reference for the caller.
  static Cache* NewCache() {
    const AutoRelease<BufferFactoryPhysMem> factory(new BufferFactoryPhysMem);
    EXPECT_TRUE(factory->Initialize(Page(), kBlocks, kBlocks, 0));
    return new Cache(factory);
  }
  NativeFileSource* OpenCached(const std::string& name, Cache* cache) {
    NativeFileSource* const source = OpenFile(name);
    EXPECT_TRUE(source->UseCache(cache));
    return source;
  }
};

TEST_F(FaultyFileCacheTest, ErrorsAreNotTakenForTheEndOfTheFile) {
  const AutoRelease<Cache> cache(NewCache());
  const Source failing(OpenCached("eio", cache));
  const Source later(OpenCached("eio-later", cache));
  const std::size_t good = 8 * Page();
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ((Outcome{kError, 0}), ReadInto(failing, 0, Whole()));
    EXPECT_EQ((Outcome{kError, 0}), ReadInto(failing, 100, {{memory_.At(), 10}}));
    memory_.FillWith(0);
    EXPECT_EQ((Outcome{kOK, good - 5}), ReadInto(later, 5, {{memory_.At(), good - 5}}));
    EXPECT_TRUE(HasPattern(memory_.At(), good - 5, 5));
    EXPECT_EQ((Outcome{kError, 0}), ReadInto(later, 0, Whole()));
    EXPECT_EQ((Outcome{kError, 0}), ReadInto(later, 20 * Page(), {{memory_.At(), Page()}}));
  }
}

TEST_F(FaultyFileCacheTest, ShortTransfersGiveEveryByte) {
  const AutoRelease<Cache> cache(NewCache());
  for (const char* const name : {"short", "plain", "buffered", "buffered-tiny"}) {
    const Source source(OpenCached(name, cache));
    memory_.FillWith(0);
    EXPECT_EQ((Outcome{kOK, Faulty::kSize}), ReadInto(source, 0, Whole())) << name;
    EXPECT_TRUE(HoldPattern(Whole(), Faulty::kSize)) << name;
    const std::size_t rest = 3000;
    EXPECT_EQ((Outcome{kPartial, rest}), ReadInto(source, Faulty::kSize - rest, Whole())) << name;
    EXPECT_TRUE(HasPattern(memory_.At(), rest, Faulty::kSize - rest)) << name;
  }
}

TEST_F(FaultyFileCacheTest, AReadThatMovesNothingIsTheEnd) {
  const AutoRelease<Cache> cache(NewCache());
  const Source source(OpenCached("nothing", cache));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, 0, Whole()));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, 100, {{memory_.At(), 10}}));
}

TEST_F(FaultyFileCacheTest, CancelReportsEveryReadOfAHeldDevice) {
  const AutoRelease<Cache> cache(NewCache());
  for (const bool purge : {false, true}) {
    system_->HoldAgain();
    const Source source(OpenCached("held", cache));
    const AutoRelease<Reports> reports(new Reports);
    constexpr std::size_t kReads = 30;  // more than there are blocks
    for (std::size_t page = 0; page < kReads; ++page) {
      ASSERT_EQ(kPending, Start(source, /*write=*/false, 3 * page, reports));
    }
    ASSERT_TRUE(system_->AwaitHeld(1));
    ReleaseWhile(
        [&] {
          if (purge) {
            cache->Purge(source);
          } else {
            source->Cancel();
          }
        },
        reports);
    EXPECT_EQ(std::vector<Outcome>(kReads, {kFailed, 0}), reports->WaitFor(kReads));
    // Nothing writes to the memory of a reported request.
    memory_.FillWith(0xA5);
    Dawdle();
    EXPECT_TRUE(memory_.IsFilledWith(0xA5, 0, memory_.Size()));
    EXPECT_EQ(kReads, reports->Count());
  }
}

// The device still writes into blocks when nobody wants them any more.
TEST_F(FaultyFileCacheTest, ReleasedWhileTheDeviceHoldsItsReadsEverythingComesBack) {
  const AutoRelease<BufferFactoryPhysMem> factory(new BufferFactoryPhysMem);
  ASSERT_TRUE(factory->Initialize(Page(), kBlocks, kBlocks, 0));
  const AutoRelease<Reports> reports(new Reports);
  {
    const AutoRelease<Cache> cache(new Cache(factory));
    const Source source(OpenCached("held", cache));
    for (std::size_t page = 0; page < kHeldAtOnce; ++page) {
      ASSERT_EQ(kPending, Start(source, /*write=*/false, 3 * page, reports));
    }
    ASSERT_TRUE(system_->AwaitHeld(1));
  }
  EXPECT_EQ(0u, reports->Count());
  EXPECT_EQ(0u, factory->GetNumberOfBuffersFree());
  system_->ReleaseHeld();
  EXPECT_EQ(std::vector<Outcome>(kHeldAtOnce, {kOK, Page()}), reports->WaitFor(kHeldAtOnce));
  EXPECT_TRUE(Eventually([&] { return factory->GetNumberOfBuffersFree() == kBlocks; }));
  EXPECT_TRUE(Eventually([&] { return reports->GetRefCount() == 1; }));
  EXPECT_EQ(kHeldAtOnce, reports->Count());
}

TEST_F(FaultyFileTest, ADeviceThatGoesAwayReportsErrors) {
  const Source source(OpenFile("held"));
  const AutoRelease<Reports> reports(new Reports);
  for (std::size_t page = 0; page < 8; ++page) {
    ASSERT_EQ(kPending, Start(source, page % 2 == 0, page, reports));
  }
  ASSERT_TRUE(system_->AwaitHeld(1));
  system_.reset();
  for (const Outcome& outcome : reports->WaitFor(8)) {
    // The last words of the file system carry out what it holds.
    EXPECT_TRUE(outcome == (Outcome{kOK, Page()}) || outcome == (Outcome{kError, 0}));
  }
  EXPECT_EQ(8u, reports->Count());
  EXPECT_EQ((Outcome{kError, 0}), ReadInto(source, 0, Whole()));
}

}  // namespace
}  // namespace Orvane
