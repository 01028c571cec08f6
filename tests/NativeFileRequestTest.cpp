// The life of requests on native files: slots, cancelling, closing, callbacks, references.
#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "FileTestTools.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

using Source = AutoRelease<NativeFileSource>;

constexpr std::size_t kPages = 64;

class NativeFileRequestTest : public OrvaneTest {
 protected:
  NativeFileRequestTest() : memory_(kPages * Page()), file_("requests"), other_("others") {
    EXPECT_TRUE(file_.FillWithPattern(0, kPages * Page()));
    EXPECT_TRUE(other_.FillWithPattern(0, kPages * Page(), 1));
  }

  // Page `page` of the file into page `page` of the memory.
  CacheSource::Result_t StartRead(FileSource* source, std::size_t page,
                                  FileSource::ResultCallbackBufferList* callback) {
    const AutoRelease<BufferList> list(NewListOf({{memory_.At(page * Page()), Page()}}));
    return source->ReadAsyncWithList(page * Page(), list, callback, CacheSource::kDueASAP);
  }

  // Waits until `reports` is held by the test alone: the library has given everything back.
  static bool IsGivenBack(Reports* reports) {
    return Eventually([&] { return reports->GetRefCount() == 1; });
  }

  const Memory memory_;
  const TestFile file_;
  const TestFile other_;
};

TEST_F(NativeFileRequestTest, SixtyOneAreAcceptedAndTheNextOneIsRefusedUntilOneIsReported) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  {
    const BusyIoThread busy;
    for (std::size_t page = 0; page < kRequestSlots; ++page) {
      ASSERT_EQ(kPending, StartRead(source, page, reports)) << page;
    }
    EXPECT_EQ(kBusy, StartRead(source, 61, reports));
    EXPECT_EQ(kBusy, StartRead(source, 61, reports));
    EXPECT_EQ((Outcome{kBusy, kUntouched}), ReadInto(source, 0, {{memory_.At(), Page()}}));
    EXPECT_EQ(0u, reports->Count());
  }
  EXPECT_EQ(std::vector<Outcome>(kRequestSlots, {kOK, Page()}), reports->WaitFor(kRequestSlots));
  EXPECT_EQ(kPending, StartRead(source, 61, reports));
  EXPECT_EQ(kRequestSlots + 1, reports->WaitFor(kRequestSlots + 1).size());
  EXPECT_TRUE(HasPattern(memory_.At(), 62 * Page(), 0));
  EXPECT_TRUE(reports->AllBuffersWereUnlocked());
  EXPECT_TRUE(IsGivenBack(reports));
}

TEST_F(NativeFileRequestTest, TheSlotOfAReportIsFreeInsideItsCallback) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  std::atomic<int> resubmitted{0};
  const AutoRelease<Reports> second(new Reports);
  const AutoRelease<Reports> reports(new Reports([&](Outcome) {
    if (StartRead(source, 62, second) == kPending) ++resubmitted;
  }));
  {
    const BusyIoThread busy;
    for (std::size_t page = 0; page < kRequestSlots; ++page) {
      ASSERT_EQ(kPending, StartRead(source, page, page == 0 ? reports.Get() : second.Get()));
    }
  }
  EXPECT_EQ(kRequestSlots, second->WaitFor(kRequestSlots).size());
  EXPECT_EQ(1, resubmitted);
}

TEST_F(NativeFileRequestTest, CancelReportsEveryRequestOfItsFileAndNoneOfAnother) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  const Source other(OpenSource(other_.Path(), OpenFor::kRead));
  const Source sameFile(OpenSource(file_.Path(), OpenFor::kRead));
  const AutoRelease<Reports> cancelled(new Reports);
  const AutoRelease<Reports> kept(new Reports);
  std::size_t reportedWhenCancelReturned = 0;
  {
    BusyIoThread busy;
    for (std::size_t page = 0; page < 60; page += 3) {
      ASSERT_EQ(kPending, StartRead(source, page, cancelled));
      ASSERT_EQ(kPending, StartRead(other, page + 1, kept));
      ASSERT_EQ(kPending, StartRead(sameFile, page + 2, kept));
    }
    busy.BeforeLettingGo([&] {
      source->CancelNonCached();
      reportedWhenCancelReturned = cancelled->Count();
    });
  }
  EXPECT_EQ(20u, reportedWhenCancelReturned);
  EXPECT_EQ(std::vector<Outcome>(20, {kFailed, 0}), cancelled->WaitFor(20));
  EXPECT_EQ(std::vector<Outcome>(40, {kOK, Page()}), kept->WaitFor(40));
  EXPECT_TRUE(HasPattern(memory_.At(Page()), Page(), Page(), 1));
  EXPECT_TRUE(HasPattern(memory_.At(2 * Page()), Page(), 2 * Page()));
  EXPECT_TRUE(cancelled->AllBuffersWereUnlocked());
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
  EXPECT_EQ(20u, cancelled->Count());
}

TEST_F(NativeFileRequestTest, CancelReportsTheStartOffsetOfEveryRequest) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  {
    BusyIoThread busy;
    for (const std::size_t page : {5u, 2u, 9u}) {
      ASSERT_EQ(kPending, StartRead(source, page, reports));
    }
    busy.BeforeLettingGo([&] { source->Cancel(); });
  }
  auto offsets = reports->Offsets();
  std::sort(offsets.begin(), offsets.end());
  EXPECT_EQ(std::vector<std::uint64_t>({2 * Page(), 5 * Page(), 9 * Page()}), offsets);
}

TEST_F(NativeFileRequestTest, CancelFromAnotherThreadReturnsAfterTheLastReport) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  for (int round = 0; round < 200; ++round) {
    const AutoRelease<Reports> reports(new Reports);
    for (std::size_t page = 0; page < 40; ++page) {
      ASSERT_EQ(kPending, StartRead(source, page, reports));
    }
    source->Cancel();
    ASSERT_EQ(40u, reports->Count());
    for (const Outcome& outcome : reports->WaitFor(40)) {
      ASSERT_TRUE(outcome == (Outcome{kOK, Page()}) || outcome == (Outcome{kFailed, 0}));
    }
  }
}

TEST_F(NativeFileRequestTest, CancelWithNothingOutstandingReturnsAndTheSourceGoesOn) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  source->Cancel();
  source->CancelNonCached();
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, {{memory_.At(), Page()}}));
  source->Cancel();
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, {{memory_.At(), Page()}}));
}

// What a callback may do; each time 30 requests are outstanding, the first report acts.
class NativeFileCallbackTest : public NativeFileRequestTest {
 protected:
  std::vector<Outcome> ActInFirstReport(NativeFileSource* source,
                                        const std::function<void()>& action) {
    std::atomic<bool> acted{false};
    const AutoRelease<Reports> reports(new Reports([&](Outcome) {
      if (!acted.exchange(true)) action();
    }));
    {
      const BusyIoThread busy;
      for (std::size_t page = 0; page < 30; ++page) {
        EXPECT_EQ(kPending, StartRead(source, page, reports));
      }
    }
    reports->WaitFor(30);
    EXPECT_TRUE(IsGivenBack(reports));
    EXPECT_TRUE(Eventually([] { return CountFreeSlots() == kRequestSlots; }));
    return reports->WaitFor(30);
  }

  // Every request once; whichever was reported first, and others that were done already, are good.
  static void ExpectOneReportEach(const std::vector<Outcome>& outcomes) {
    EXPECT_EQ(30u, outcomes.size());
    if (outcomes.empty()) return;
    EXPECT_EQ((Outcome{kOK, Page()}), outcomes.front());
    for (const Outcome& outcome : outcomes) {
      EXPECT_TRUE(outcome == (Outcome{kOK, Page()}) || outcome == (Outcome{kFailed, 0}));
    }
  }
};

TEST_F(NativeFileCallbackTest, MayCancel) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  ExpectOneReportEach(ActInFirstReport(source, [&] { source->Cancel(); }));
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, {{memory_.At(), Page()}}));
}

TEST_F(NativeFileCallbackTest, MayClose) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  std::atomic<bool> closed{false};
  ExpectOneReportEach(ActInFirstReport(source, [&] { closed = source->Close(); }));
  EXPECT_TRUE(closed);
  EXPECT_FALSE(source->Close());
}

TEST_F(NativeFileCallbackTest, MayDelete) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  std::atomic<bool> deleted{false};
  ExpectOneReportEach(ActInFirstReport(source, [&] { deleted = source->Delete(); }));
  EXPECT_TRUE(deleted);
  EXPECT_FALSE(file_.Exists());
}

TEST_F(NativeFileCallbackTest, MayReleaseTheSource) {
  Source source(OpenSource(file_.Path(), OpenFor::kRead));
  std::atomic<long> count{-1};
  ExpectOneReportEach(ActInFirstReport(source, [&] { count = source.Release(); }));
  EXPECT_EQ(0, count);
}

TEST_F(NativeFileCallbackTest, MayReopenAndReadOn) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  const AutoRelease<Reports> more(new Reports);
  ExpectOneReportEach(ActInFirstReport(source, [&] {
    EXPECT_TRUE(source->Close());
    EXPECT_TRUE(source->Open(true, false, false));
    EXPECT_EQ(kPending, StartRead(source, 40, more));
    EXPECT_EQ(kPending, StartRead(source, 41, more));
  }));
  EXPECT_EQ(std::vector<Outcome>(2, {kOK, Page()}), more->WaitFor(2));
  EXPECT_TRUE(HasPattern(memory_.At(40 * Page()), 2 * Page(), 40 * Page()));
}

TEST_F(NativeFileCallbackTest, MayNotReadOrWriteSynchronously) {
  const Source source(OpenSource(file_.Path(), OpenFor::kReadAndWrite));
  const Pieces page = {{memory_.At(50 * Page()), Page()}};
  const auto outcomes = ActInFirstReport(source, [&] {
    EXPECT_EQ((Outcome{kError, kUntouched}), ReadInto(source, 0, page));
    EXPECT_EQ((Outcome{kError, kUntouched}), WriteFrom(source, 0, page));
  });
  EXPECT_EQ(std::vector<Outcome>(30, {kOK, Page()}), outcomes);
  EXPECT_TRUE(file_.HasPattern(0, Page()));
}

TEST_F(NativeFileCallbackTest, MayCancelAnotherFileWhileItsOwnIsBeingCancelled) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  const Source other(OpenSource(other_.Path(), OpenFor::kRead));
  const AutoRelease<Reports> others(new Reports([&](Outcome) { source->Cancel(); }));
  const AutoRelease<Reports> reports(new Reports([&](Outcome) { other->Cancel(); }));
  {
    BusyIoThread busy;
    for (std::size_t page = 0; page < 40; page += 2) {
      ASSERT_EQ(kPending, StartRead(source, page, reports));
      ASSERT_EQ(kPending, StartRead(other, page + 1, others));
    }
    busy.BeforeLettingGo([&] { source->Cancel(); });
  }
  EXPECT_EQ(std::vector<Outcome>(20, {kFailed, 0}), reports->WaitFor(20));
  EXPECT_EQ(std::vector<Outcome>(20, {kFailed, 0}), others->WaitFor(20));
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
}

TEST_F(NativeFileCallbackTest, ExceptionsAreLoggedAndTheIoThreadGoesOn) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  TestMTInterface::Get().TakeDebugText();
  const AutoRelease<Reports> reports(
      new Reports([](Outcome) { throw std::runtime_error("thrown in a report"); }));
  ASSERT_EQ(kPending, StartRead(source, 0, reports));
  ASSERT_EQ(1u, reports->WaitFor(1).size());
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, {{memory_.At(), Page()}}));
  EXPECT_NE(std::string::npos,
            TestMTInterface::Get().TakeDebugText().find("Unhandled Exception In File Callback"));
  EXPECT_TRUE(IsGivenBack(reports));
}

// A file that cannot be opened fails every transfer at once. Whoever tries again from his callback,
// for ever, takes nothing from the other files.
TEST_F(NativeFileCallbackTest, EndlessRetriesOnAFailingFileDoNotStarveOtherFiles) {
  const Source failing(OpenSource(PathOf("no-such-file"), OpenFor::kRead));
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  std::atomic<bool> stop{false};
  std::atomic<Reports*> self{nullptr};
  const AutoRelease<Reports> retries(new Reports([&](Outcome outcome) {
    if (outcome.result == kError && !stop) StartRead(failing, 0, self);
  }));
  self = retries.Get();
  ASSERT_EQ(kPending, StartRead(failing, 0, retries));
  const AutoRelease<Reports> reports(new Reports);
  ASSERT_EQ(kPending, StartRead(source, 1, reports));
  EXPECT_TRUE(Eventually([&] { return reports->Count() == 1; }));
  stop = true;
  EXPECT_EQ(std::vector<Outcome>({{kOK, Page()}}), reports->WaitFor(1));
  EXPECT_TRUE(IsGivenBack(retries));
}

TEST_F(NativeFileRequestTest, RequestsWithoutACallbackAreCarriedOut) {
  const Source source(OpenSource(file_.Path(), OpenFor::kReadAndWrite));
  FillPattern(memory_.At(), Page(), 0, 9);
  const AutoRelease<BufferList> list(NewListOf({{memory_.At(), Page()}}));
  ASSERT_EQ(kPending, source->WriteAsyncWithList(0, list, nullptr, CacheSource::kDueASAP));
  EXPECT_TRUE(Eventually([&] { return list->GetRefCount() == 1; }));
  EXPECT_EQ(Buffer::kBufferUnlocked, list->GetBuffer(0)->GetLockState());
  EXPECT_TRUE(file_.HasPattern(0, Page(), 9));
}

TEST_F(NativeFileRequestTest, BuffersAreLockedAndTheListIsHeldUntilTheReport) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  const AutoRelease<BufferList> list(NewListOf({{memory_.At(), Page()}}));
  {
    const BusyIoThread busy;
    ASSERT_EQ(kPending, source->ReadAsyncWithList(0, list, reports, CacheSource::kDueASAP));
    EXPECT_EQ(Buffer::kBufferLocked, list->GetBuffer(0)->GetLockState());
    EXPECT_EQ(2, list->GetRefCount());
    EXPECT_EQ(2, reports->GetRefCount());
    EXPECT_EQ(1, source->GetRefCount());
  }
  EXPECT_EQ(1u, reports->WaitFor(1).size());
  EXPECT_TRUE(reports->AllBuffersWereUnlocked());
  EXPECT_TRUE(IsGivenBack(reports));
  EXPECT_EQ(1, list->GetRefCount());
}

TEST_F(NativeFileRequestTest, SynchronousCallsReturnWithEverythingGivenBack) {
  const Source source(OpenSource(file_.Path(), OpenFor::kReadAndWrite));
  const AutoRelease<Buffer> buffer(new HostBuffer(memory_.At(), Page()));
  const AutoRelease<BufferList> list(NewListOf(ScatteredPagesOf(memory_)));
  const auto expectGivenBack = [&] {
    ASSERT_EQ(Buffer::kBufferUnlocked, buffer->GetLockState());
    ASSERT_EQ(1, buffer->GetRefCount());
    ASSERT_EQ(1, list->GetRefCount());
    ASSERT_EQ(1, source->GetRefCount());
    for (std::size_t i = 0; i < list->GetNumberOfBuffers(); ++i) {
      ASSERT_EQ(Buffer::kBufferUnlocked, list->GetBuffer(i)->GetLockState());
      ASSERT_EQ(1, list->GetBuffer(i)->GetRefCount());
    }
  };
  for (int round = 0; round < 300; ++round) {
    std::uint64_t bytes = 0;
    ASSERT_EQ(kOK, source->Read(Page(), buffer, &bytes));
    ASSERT_NO_FATAL_FAILURE(expectGivenBack());
    ASSERT_EQ(Page(), bytes);
    ASSERT_EQ(kOK, source->Write(Page(), buffer, round % 2 == 0 ? &bytes : nullptr));
    ASSERT_NO_FATAL_FAILURE(expectGivenBack());
    ASSERT_EQ(kOK, source->ReadWithList(0, list, &bytes));
    ASSERT_NO_FATAL_FAILURE(expectGivenBack());
    ASSERT_EQ(kOutOfRange, source->Read(kPages * Page(), buffer, nullptr));
    ASSERT_NO_FATAL_FAILURE(expectGivenBack());
  }
}

class SingleBufferReport : public FileSource::ResultCallbackBuffer {
 public:
  void Callback(CacheSource::Result_t result, std::uint64_t offset, Buffer* buffer,
                std::uint64_t bytes) override {
    outcome = {result, bytes};
    startOffset = offset;
    reported = buffer;
  }
  Outcome outcome{CacheSource::kResultNone, 0};
  std::uint64_t startOffset = 0;
  std::atomic<Buffer*> reported{nullptr};

 protected:
  ~SingleBufferReport() override = default;
};

TEST_F(NativeFileRequestTest, ReportsOfSingleBuffersCarryTheBuffer) {
  const Source source(OpenSource(file_.Path(), OpenFor::kReadAndWrite));
  const AutoRelease<Buffer> buffer(new HostBuffer(memory_.At(), Page()));
  for (const bool write : {false, true}) {
    const AutoRelease<SingleBufferReport> report(new SingleBufferReport);
    const auto operation = write ? &FileSource::WriteAsync : &FileSource::ReadAsync;
    ASSERT_EQ(kPending,
              (source.Get()->*operation)(2 * Page(), buffer, report, CacheSource::kDueASAP));
    EXPECT_TRUE(Eventually([&] { return report->reported == buffer.Get(); }));
    EXPECT_EQ((Outcome{kOK, Page()}), report->outcome);
    EXPECT_EQ(2 * Page(), report->startOffset);
    EXPECT_TRUE(Eventually([&] { return report->GetRefCount() == 1; }));
    EXPECT_TRUE(Eventually([&] { return buffer->GetRefCount() == 1; }));
  }
}

TEST_F(NativeFileRequestTest, AFailedStartWithASingleBufferReleasesTheCallersCallback) {
  const Source source(NewSource(file_.Path()));
  const AutoRelease<Buffer> buffer(new HostBuffer(memory_.At(), Page()));
  const AutoRelease<SingleBufferReport> report(new SingleBufferReport);
  for (const auto operation : {&FileSource::ReadAsync, &FileSource::WriteAsync}) {
    report->AddRef("tests", "AFailedStart", 0);
    EXPECT_EQ(kNotSupported, (source.Get()->*operation)(0, buffer, report, CacheSource::kDueASAP));
    EXPECT_EQ(1, report->GetRefCount());
    EXPECT_EQ(1, buffer->GetRefCount());
  }
  EXPECT_EQ(nullptr, report->reported);
}

TEST_F(NativeFileRequestTest, ReleaseOfASourceReportsItsOutstandingRequests) {
  for (int round = 0; round < 100; ++round) {
    Source source(OpenSource(file_.Path(), OpenFor::kReadAndWrite));
    const AutoRelease<Reports> reports(new Reports);
    for (std::size_t page = 0; page < 30; ++page) {
      ASSERT_EQ(kPending, StartRead(source, page, reports));
    }
    ASSERT_EQ(0, source.Release());
    ASSERT_EQ(30u, reports->Count());
    ASSERT_TRUE(IsGivenBack(reports));
  }
}

TEST_F(NativeFileRequestTest, CloseReportsEverythingThatWasAcceptedMeanwhile) {
  const Source source(NewSource(file_.Path()));
  for (int round = 0; round < 60; ++round) {
    ASSERT_TRUE(source->Open(true, false, false));
    const AutoRelease<Reports> reports(new Reports);
    std::atomic<std::size_t> accepted{0};
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    for (std::size_t k = 0; k < 4; ++k) {
      threads.emplace_back([&, k] {
        for (std::size_t i = 0;; ++i) {
          // Memory of its own: any number may be in flight.
          const AutoRelease<BufferList> list(new BufferList(
              PhysMemInterface::Allocate(Page()), /*adoptReference=*/true, /*capacity=*/1));
          const auto result = source->ReadAsyncWithList((k * 16 + i % 16) * Page(), list, reports,
                                                        CacheSource::kDueASAP);
          if (result == kPending) ++accepted;
          if (result == kNotSupported) return;
          if (i == 3) ++started;
        }
      });
    }
    while (started < 4) std::this_thread::yield();
    ASSERT_TRUE(source->Close());
    const std::size_t reported = reports->Count();
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(accepted, reports->Count());
    ASSERT_EQ(reported, reports->Count()) << "a report after the return of Close";
  }
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
}

TEST_F(NativeFileRequestTest, OfSeveralThreadsThatCloseExactlyOneSucceeds) {
  const Source source(NewSource(file_.Path()));
  for (int round = 0; round < 100; ++round) {
    ASSERT_TRUE(source->Open(true, false, false));
    const AutoRelease<Reports> reports(new Reports);
    for (std::size_t page = 0; page < 10; ++page) {
      ASSERT_EQ(kPending, StartRead(source, page, reports));
    }
    std::atomic<int> closed{0};
    std::vector<std::thread> threads;
    for (int k = 0; k < 3; ++k) {
      threads.emplace_back([&] {
        if (source->Close()) ++closed;
      });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_EQ(1, closed);
    ASSERT_EQ(10u, reports->Count());
  }
}

TEST_F(NativeFileRequestTest, SynchronousReadsOfManyThreadsShareTheSlots) {
  const Source source(OpenSource(file_.Path(), OpenFor::kRead));
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (std::size_t k = 0; k < 8; ++k) {
    threads.emplace_back([&, k] {
      for (int i = 0; i < 200; ++i) {
        const Pieces piece = {{memory_.At(k * 8 * Page()), 8 * Page()}};
        const Outcome outcome = ReadInto(source, k * 8 * Page(), piece);
        if (outcome != Outcome{kOK, 8 * Page()} ||
            !HasPattern(piece[0].first, piece[0].second, k * 8 * Page())) {
          ++bad;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, bad);
}

}  // namespace
}  // namespace Orvane
