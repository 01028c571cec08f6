// What native files are to this host: how they are opened and shared, and which calls move them.
#include "OSServices/Win/AsyncPortWin.h"
#include "OSServices/Win/HostFileWin.h"
#include "OSServices/Win/HostResultWin.h"

// Behind those, whose enumerators have the names of its constants.
#include <algorithm>
#include <chrono>
#include <future>
#include <memory>

#include "FileTestTools.h"
#include "TestHost.h"

namespace Orvane {
namespace {

using Source = AutoRelease<NativeFileSource>;

class NativeFileHostTest : public OrvaneTest {
 protected:
  NativeFileHostTest() : memory_(8 * Page()) {}

  Memory memory_;
};

TEST_F(NativeFileHostTest, ListsGoThroughTheScatterAndGatherCalls) {
  const TestFile file("scattered");
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite, /*create=*/true));
  const Pieces pieces = ScatteredPagesOf(memory_);
  FillPattern(memory_.At(), memory_.Size(), 0);
  const AsyncPortWin::Counts before = AsyncPortWin::GetCounts();
  EXPECT_EQ((Outcome{kOK, 4 * Page()}), WriteFrom(source, 0, pieces));
  EXPECT_EQ((Outcome{kOK, 4 * Page()}), ReadInto(source, 0, pieces));
  const AsyncPortWin::Counts after = AsyncPortWin::GetCounts();
  EXPECT_EQ(2u, after.scattered - before.scattered);
  EXPECT_EQ(0u, after.plain - before.plain);
}

TEST_F(NativeFileHostTest, OneStretchOfMemoryGoesThroughThePlainCalls) {
  const TestFile file("plain");
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite, /*create=*/true));
  const AsyncPortWin::Counts before = AsyncPortWin::GetCounts();
  const Pieces neighbours = {{memory_.At(), Page()}, {memory_.At(Page()), 3 * Page()}};
  EXPECT_EQ((Outcome{kOK, 4 * Page()}), WriteFrom(source, 0, neighbours));
  EXPECT_EQ((Outcome{kOK, 4 * Page()}), ReadInto(source, 0, {{memory_.At(), 4 * Page()}}));
  const AsyncPortWin::Counts after = AsyncPortWin::GetCounts();
  EXPECT_EQ(0u, after.scattered - before.scattered);
  EXPECT_EQ(2u, after.plain - before.plain);
}

TEST_F(NativeFileHostTest, AFileIsOpenedUnbufferedOverlappedAndForWritingThroughTheHostsCache) {
  constexpr DWORD kUnbufferedOverlapped = 0x60000000;
  constexpr DWORD kWriteThrough = 0x80000000;
  constexpr DWORD kEverybody = 7;
  using Opening = HostFileWin::Opening;
  EXPECT_EQ((Opening{GENERIC_READ, kEverybody, OPEN_EXISTING, kUnbufferedOverlapped}),
            HostFileWin::OpeningFor(/*forRead=*/true, /*forWrite=*/false, /*create=*/false));
  EXPECT_EQ(
      (Opening{GENERIC_WRITE, kEverybody, OPEN_ALWAYS, kUnbufferedOverlapped | kWriteThrough}),
      HostFileWin::OpeningFor(/*forRead=*/false, /*forWrite=*/true, /*create=*/true));
  EXPECT_EQ((Opening{GENERIC_READ | GENERIC_WRITE, kEverybody, OPEN_EXISTING,
                     kUnbufferedOverlapped | kWriteThrough}),
            HostFileWin::OpeningFor(/*forRead=*/true, /*forWrite=*/true, /*create=*/false));
  EXPECT_EQ((Opening{0, kEverybody, OPEN_ALWAYS, kUnbufferedOverlapped}),
            HostFileWin::OpeningFor(/*forRead=*/false, /*forWrite=*/false, /*create=*/true));
}

TEST_F(NativeFileHostTest, AnOpenFileIsSharedWithEverybody) {
  const TestFile file("shared-with-all");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite));
  const HANDLE other = CreateFileA(file.Path().c_str(), GENERIC_READ | GENERIC_WRITE | DELETE,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                   OPEN_EXISTING, 0, nullptr);
  EXPECT_NE(INVALID_HANDLE_VALUE, other);
  CloseHandle(other);
  EXPECT_TRUE(IsOpenHere(file.Path()));
  EXPECT_TRUE(source->Close());
  EXPECT_FALSE(IsOpenHere(file.Path()));
}

TEST_F(NativeFileHostTest, ADirectoryIsNoFile) {
  const Source source(OpenSource(Directory(), OpenFor::kRead));
  EXPECT_EQ((Outcome{kError, 0}), ReadInto(source, 0, {{memory_.At(), Page()}}));
}

// No transfer from there to the highest offset is handed to the host.
TEST_F(NativeFileHostTest, FarBehindTheEndAFileEndsAlsoWhenItIsEmpty) {
  constexpr std::uint64_t kFar = std::uint64_t{1} << 63;
  for (const std::uint64_t size : {0u, 1u, 4096u}) {
    const TestFile file("ends-early");
    ASSERT_TRUE(file.Resize(size));
    const AutoRelease<HostFileWin> opened(
        new HostFileWin(file.Path().c_str(), /*forRead=*/true, /*forWrite=*/false, false));
    for (const std::uint64_t offset : {kFar - 4096, kFar, kFar + 4096}) {
      AsyncPort::Transfer transfer = {};
      transfer.file = opened;
      transfer.offset = offset;
      EXPECT_EQ(AsyncPort::Started::kEndOfFile, CheckTransfer(transfer)) << size << " " << offset;
    }
  }
}

TEST_F(NativeFileHostTest, TheErrorsOfTheHostAreOutcomes) {
  using Outcome = AsyncPort::Outcome;
  EXPECT_EQ(Outcome::kMoved, OutcomeForHostError(ERROR_SUCCESS, 1, false));
  EXPECT_EQ(Outcome::kMoved, OutcomeForHostError(ERROR_SUCCESS, 1, true));
  EXPECT_EQ(Outcome::kEndOfFile, OutcomeForHostError(ERROR_SUCCESS, 0, false));
  EXPECT_EQ(Outcome::kFailed, OutcomeForHostError(ERROR_SUCCESS, 0, true));
  EXPECT_EQ(Outcome::kEndOfFile, OutcomeForHostError(ERROR_HANDLE_EOF, 0, false));
  EXPECT_EQ(Outcome::kFailed, OutcomeForHostError(ERROR_HANDLE_EOF, 0, true));
  EXPECT_EQ(Outcome::kRefused, OutcomeForHostError(ERROR_INVALID_PARAMETER, 0, false));
  EXPECT_EQ(Outcome::kFailed, OutcomeForHostError(ERROR_OPERATION_ABORTED, 0, false));
  EXPECT_EQ(Outcome::kFailed, OutcomeForHostError(ERROR_DISK_FULL, 0, true));
}

// The end of a named pipe that a test holds. A source is the other end, whose reads stay under way
// until something is written here.
class Pipe {
 public:
  Pipe() : name_(NewName()) {
    server_ =
        CreateNamedPipeA(name_.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                         PIPE_TYPE_BYTE | PIPE_WAIT, 1, kBufferBytes, kBufferBytes, 0, nullptr);
    EXPECT_NE(INVALID_HANDLE_VALUE, server_);
  }
  ~Pipe() { Break(); }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  const std::string& Name() const { return name_; }

  // Everything under way at the other end fails.
  void Break() {
    if (server_ != INVALID_HANDLE_VALUE) CloseHandle(server_);
    server_ = INVALID_HANDLE_VALUE;
  }

  // False if it does not go into the pipe in time.
  bool Write(const Memory& memory) {
    OVERLAPPED write = {};
    write.hEvent = CreateEventA(nullptr, /*bManualReset=*/TRUE, FALSE, nullptr);
    const bool done =
        WriteFile(server_, memory.At(), static_cast<DWORD>(memory.Size()), nullptr, &write) != 0;
    const bool started = done || GetLastError() == ERROR_IO_PENDING;
    DWORD bytes = 0;
    if (started) {
      if (WaitForSingleObject(write.hEvent, kLimitMs) != WAIT_OBJECT_0) CancelIo(server_);
      GetOverlappedResult(server_, &write, &bytes, /*bWait=*/TRUE);
    }
    CloseHandle(write.hEvent);
    return bytes == memory.Size();
  }

 private:
  static constexpr DWORD kBufferBytes = 1 << 20;
  static constexpr DWORD kLimitMs = 10000;

  static std::string NewName() {
    static int made = 0;
    return "\\\\.\\pipe\\orvane-" + std::to_string(GetProcessNumber()) + "-" +
           std::to_string(++made);
  }

  const std::string name_;
  HANDLE server_ = INVALID_HANDLE_VALUE;
};

class NativeFilePipeTest : public NativeFileHostTest {
 protected:
  // The reads that the host has, and will not end.
  void StartReads(FileSource* source, Reports* reports, std::size_t count) {
    const AsyncPortWin::Counts before = AsyncPortWin::GetCounts();
    for (std::size_t i = 0; i < count; ++i) {
      const AutoRelease<BufferList> list(NewListOf({{pages_.At(i * Page()), Page()}}));
      ASSERT_EQ(kPending, source->ReadAsyncWithList(0, list, reports, CacheSource::kDueASAP));
    }
    EXPECT_TRUE(
        Eventually([&] { return AsyncPortWin::GetCounts().plain == before.plain + count; }));
    EXPECT_EQ(0u, reports->Count());
  }

  // Runs what would never end while a read stays under way: then the pipe is broken, so that it
  // does.
  static void ExpectToEnd(Pipe* pipe, const std::function<void()>& work) {
    const std::future<void> done = std::async(std::launch::async, work);
    const bool ended = done.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    EXPECT_TRUE(ended) << "a transfer was not given up";
    if (!ended) pipe->Break();
  }

  static std::vector<Outcome> Cancelled(std::size_t count) {
    return std::vector<Outcome>(count, Outcome{kFailed, 0});
  }

  Memory pages_{kRequestSlots * Page()};
};

TEST_F(NativeFilePipeTest, ACancelEndsEveryReadUnderWayBeforeItReturns) {
  Pipe pipe;
  const Source source(OpenSource(pipe.Name(), OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  StartReads(source, reports, kRequestSlots);
  const AutoRelease<BufferList> list(NewListOf({{memory_.At(), Page()}}));
  EXPECT_EQ(kBusy, source->ReadAsyncWithList(0, list, reports, CacheSource::kDueASAP));
  ExpectToEnd(&pipe, [&] {
    source->Cancel();
    EXPECT_EQ(kRequestSlots, reports->Count());
  });
  EXPECT_EQ(Cancelled(kRequestSlots), reports->WaitFor(kRequestSlots));
  EXPECT_TRUE(reports->AllBuffersWereUnlocked());
}

TEST_F(NativeFilePipeTest, ACancelLeavesTheReadsOfAnotherFileUnderWay) {
  Pipe pipe;
  Pipe otherPipe;
  const Source source(OpenSource(pipe.Name(), OpenFor::kRead));
  const Source other(OpenSource(otherPipe.Name(), OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  const AutoRelease<Reports> otherReports(new Reports);
  StartReads(source, reports, 3);
  StartReads(other, otherReports, 1);
  ExpectToEnd(&pipe, [&] {
    source->Cancel();
    EXPECT_EQ(3u, reports->Count());
  });
  EXPECT_EQ(Cancelled(3), reports->WaitFor(3));
  EXPECT_EQ(0u, otherReports->Count());
  const Memory page(Page());
  page.FillWith(7);
  EXPECT_TRUE(otherPipe.Write(page));
  EXPECT_EQ((std::vector<Outcome>{{kOK, Page()}}), otherReports->WaitFor(1));
  EXPECT_TRUE(pages_.IsFilledWith(7, 0, Page()));
}

TEST_F(NativeFilePipeTest, CloseEndsAReadUnderWayBeforeItReturns) {
  Pipe pipe;
  const Source source(OpenSource(pipe.Name(), OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  StartReads(source, reports, 1);
  ExpectToEnd(&pipe, [&] {
    EXPECT_TRUE(source->Close());
    EXPECT_EQ(1u, reports->Count());
  });
  EXPECT_EQ(Cancelled(1), reports->WaitFor(1));
}

TEST_F(NativeFilePipeTest, AnotherReadCanFollowACancelledOne) {
  Pipe pipe;
  const Source source(OpenSource(pipe.Name(), OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  StartReads(source, reports, 1);
  ExpectToEnd(&pipe, [&] { source->Cancel(); });
  const Memory page(Page());
  page.FillWith(9);
  EXPECT_TRUE(pipe.Write(page));
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, {{memory_.At(), Page()}}));
  EXPECT_TRUE(memory_.IsFilledWith(9, 0, Page()));
}

// Reads page after page; each is started in the report of the one before.
class PipeReader {
 public:
  PipeReader(unsigned char* page, std::size_t reads, std::function<void()> afterEach)
      : list_(NewListOf({{page, Page()}})), rest_(reads), afterEach_(std::move(afterEach)) {}

  bool Fill(unsigned char value) {
    const Memory data(rest_ * Page());
    data.FillWith(value);
    return pipe_.Write(data);
  }
  void Start() {
    --rest_;
    EXPECT_EQ(kPending, source_->ReadAsyncWithList(0, list_, reports_, CacheSource::kDueASAP));
  }
  Reports* GetReports() { return reports_; }

 private:
  void Go() {
    afterEach_();
    if (rest_ > 0) Start();
  }

  Pipe pipe_;
  const Source source_{OpenSource(pipe_.Name(), OpenFor::kRead)};
  const AutoRelease<BufferList> list_;
  std::size_t rest_;
  const std::function<void()> afterEach_;
  const AutoRelease<Reports> reports_{new Reports([this](Outcome) { Go(); })};
};

TEST_F(NativeFilePipeTest, OfSeveralThatAreAlwaysReadyEachHasItsTurn) {
  constexpr std::size_t kReaders = 4;
  constexpr std::size_t kReads = 32;
  std::vector<std::unique_ptr<PipeReader>> readers;
  std::size_t widest = 0;  // by how many reads one was ahead of another; the I/O thread's
  for (std::size_t i = 0; i < kReaders; ++i) {
    readers.push_back(std::make_unique<PipeReader>(pages_.At(i * Page()), kReads, [&] {
      const auto [least, most] =
          std::minmax_element(readers.begin(), readers.end(), [](const auto& a, const auto& b) {
            return a->GetReports()->Count() < b->GetReports()->Count();
          });
      const std::size_t ahead = (*most)->GetReports()->Count() - (*least)->GetReports()->Count();
      widest = std::max(widest, ahead);
    }));
    ASSERT_TRUE(readers.back()->Fill(static_cast<unsigned char>(i + 1)));
  }
  {
    const BusyIoThread busy;  // until all of them have begun
    for (const auto& reader : readers) reader->Start();
  }
  for (std::size_t i = 0; i < kReaders; ++i) {
    EXPECT_EQ(std::vector<Outcome>(kReads, Outcome{kOK, Page()}),
              readers[i]->GetReports()->WaitFor(kReads));
    EXPECT_TRUE(pages_.IsFilledWith(static_cast<unsigned char>(i + 1), i * Page(), Page()));
  }
  const BusyIoThread drained;  // the last report is over
  EXPECT_LE(widest, kReads / 4);
}

}  // namespace
}  // namespace Orvane
