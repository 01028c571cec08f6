// What reads and writes of native files move and report.
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "FileTestTools.h"
#include "TestHost.h"

namespace Orvane {
namespace {

using Source = AutoRelease<NativeFileSource>;

constexpr std::uint64_t kMiB = std::uint64_t{1} << 20;
constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

class NativeFileTransferTest : public OrvaneTest {
 protected:
  // Whether the pieces, in order, hold the file from `position` on, for `size` bytes.
  static bool HoldPattern(const Pieces& pieces, std::uint64_t position, std::uint64_t size,
                          std::uint64_t seed = 0) {
    for (const auto& [address, length] : pieces) {
      const std::uint64_t count = std::min<std::uint64_t>(length, size);
      if (!HasPattern(address, static_cast<std::size_t>(count), position, seed)) return false;
      position += count;
      size -= count;
    }
    return size == 0;
  }
  static void Fill(const Pieces& pieces, std::uint64_t position, std::uint64_t seed = 0) {
    for (const auto& [address, length] : pieces) {
      FillPattern(address, length, position, seed);
      position += length;
    }
  }
  // Shapes of the same 12 pages: one buffer, neighbours, a mixture, single pages from everywhere.
  static std::vector<Pieces> ShapesOf(const Memory& memory) {
    const std::size_t page = Page();
    return {
        {{memory.At(), 12 * page}},
        {{memory.At(), 5 * page}, {memory.At(5 * page), page}, {memory.At(6 * page), 6 * page}},
        {{memory.At(8 * page), 4 * page}, {memory.At(2 * page), 6 * page}, {memory.At(), 2 * page}},
        {{memory.At(page), page},
         {memory.At(2 * page), 2 * page},
         {memory.At(6 * page), 5 * page},
         {memory.At(), page},
         {memory.At(4 * page), page},
         {memory.At(11 * page), page},
         {memory.At(5 * page), page}},
        PagesOf(memory, {11, 3, 7, 0, 1, 2, 10, 8, 9, 4, 6, 5})};
  }
  static bool HasSpace(std::uint64_t bytes) {
    return std::filesystem::space(Directory()).available > bytes;
  }
};

TEST_F(NativeFileTransferTest, EveryShapeOfListIsWrittenAndReadBack) {
  const Memory memory(12 * Page());
  std::uint64_t seed = 0;
  for (const Pieces& written : ShapesOf(memory)) {
    for (const Pieces& read : ShapesOf(memory)) {
      const TestFile file("shapes");
      const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite, /*create=*/true));
      Fill(written, 3 * Page(), ++seed);
      EXPECT_EQ((Outcome{kOK, 12 * Page()}), WriteFrom(source, 3 * Page(), written));
      EXPECT_EQ(15 * Page(), file.Size());
      EXPECT_TRUE(file.HasPattern(3 * Page(), 12 * Page(), seed));
      memory.At()[0] ^= 1;
      EXPECT_EQ((Outcome{kOK, 12 * Page()}), ReadInto(source, 3 * Page(), read));
      EXPECT_TRUE(HoldPattern(read, 3 * Page(), 12 * Page(), seed));
    }
  }
}

TEST_F(NativeFileTransferTest, WritesOfOneListLandOnlyWhereTheyBelong) {
  const TestFile file("neighbours");
  ASSERT_TRUE(file.FillWithPattern(0, 8 * Page(), 1));
  const Source source(OpenSource(file.Path(), OpenFor::kWrite));
  const Memory memory(4 * Page());
  const Pieces pieces = ScatteredPagesOf(memory);
  Fill(pieces, 3 * Page(), 2);
  EXPECT_EQ((Outcome{kOK, 2 * Page()}), WriteFrom(source, 3 * Page(), pieces));
  EXPECT_TRUE(file.HasPattern(0, 3 * Page(), 1));
  EXPECT_TRUE(file.HasPattern(3 * Page(), 2 * Page(), 2));
  EXPECT_TRUE(file.HasPattern(5 * Page(), 3 * Page(), 1));
  EXPECT_EQ(8 * Page(), file.Size());
}

// Files that end on, before and behind sectors and pages, read with every shape of list.
TEST_F(NativeFileTransferTest, ReadsThatReachTheEndReportExactlyTheBytesBeforeIt) {
  const Memory memory(12 * Page());
  const std::uint64_t sizes[] = {1,    511,  512,  513,  1000,  4095,  4096,
                                 4097, 5000, 8191, 8193, 12288, 20481, 49151};
  for (const std::uint64_t size : sizes) {
    const TestFile file("ends");
    ASSERT_TRUE(file.FillWithPattern(0, size));
    const Source source(OpenSource(file.Path(), OpenFor::kRead));
    for (std::uint64_t offset = 0; offset < 13 * Page(); offset += Page()) {
      SCOPED_TRACE(std::to_string(size) + " from " + std::to_string(offset));
      for (const Pieces& pieces : ShapesOf(memory)) {
        memory.At()[0] ^= 1;
        const Outcome outcome = ReadInto(source, offset, pieces);
        if (offset >= size) {
          ASSERT_EQ((Outcome{kOutOfRange, 0}), outcome);
        } else {
          ASSERT_EQ((Outcome{kPartial, size - offset}), outcome);
          ASSERT_TRUE(HoldPattern(pieces, offset, size - offset));
        }
      }
    }
  }
}

TEST_F(NativeFileTransferTest, AReadThatEndsWithTheFileIsComplete) {
  const Memory memory(12 * Page());
  const TestFile file("exact");
  ASSERT_TRUE(file.FillWithPattern(0, 12 * Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  for (const Pieces& pieces : ShapesOf(memory)) {
    EXPECT_EQ((Outcome{kOK, 12 * Page()}), ReadInto(source, 0, pieces));
    EXPECT_TRUE(HoldPattern(pieces, 0, 12 * Page()));
  }
  EXPECT_EQ((Outcome{kPartial, Page()}), ReadInto(source, 11 * Page(), ShapesOf(memory).front()));
}

TEST_F(NativeFileTransferTest, AnEmptyFileIsAllEnd) {
  const Memory memory(2 * Page());
  const TestFile file("empty");
  ASSERT_TRUE(file.Resize(0));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, 0, {{memory.At(), Page()}}));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, 0, PagesOf(memory, {1, 0})));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, 8 * Page(), PagesOf(memory, {1, 0})));
}

TEST_F(NativeFileTransferTest, MemoryBetweenTheBuffersIsLeftAlone) {
  const Memory memory(8 * Page());
  const TestFile file("behind");
  ASSERT_TRUE(file.FillWithPattern(0, 2 * Page() + 100));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  memory.FillWith(0xA5);
  EXPECT_EQ((Outcome{kPartial, 2 * Page() + 100}),
            ReadInto(source, 0, PagesOf(memory, {6, 4, 2, 0})));
  for (const std::size_t gap : {1u, 3u, 5u, 7u}) {
    EXPECT_TRUE(memory.IsFilledWith(0xA5, gap * Page(), Page()));
  }
}

TEST_F(NativeFileTransferTest, OffsetsReachFarBeyond32Bits) {
  const Memory memory(4 * Page());
  const TestFile file("far");
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite, /*create=*/true));
  std::vector<std::uint64_t> offsets{2 * kGiB - Page(), 4 * kGiB - Page(), 4 * kGiB + 8 * Page()};
  if (MakeSparse(file.Path())) {
    offsets.push_back(1024 * kGiB + 3 * Page());
    offsets.push_back(5 * 1024 * kGiB);
  }
  const Pieces pieces = PagesOf(memory, {3, 0});
  for (const std::uint64_t offset : offsets) {
    SCOPED_TRACE(offset);
    Fill(pieces, offset);
    ASSERT_EQ((Outcome{kOK, 2 * Page()}), WriteFrom(source, offset, pieces));
    ASSERT_EQ(offset + 2 * Page(), file.Size());
    ASSERT_TRUE(file.HasPattern(offset, 2 * Page()));
  }
  for (const std::uint64_t offset : offsets) {
    SCOPED_TRACE(offset);
    EXPECT_EQ((Outcome{kOK, 2 * Page()}), ReadInto(source, offset, pieces));
    EXPECT_TRUE(HoldPattern(pieces, offset, 2 * Page()));
  }
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, 6 * 1024 * kGiB, pieces));
}

TEST_F(NativeFileTransferTest, HolesOfASparseFileReadAsZeros) {
  const Memory memory(4 * Page());
  const TestFile file("sparse");
  ASSERT_TRUE(file.Resize(1));
  if (!MakeSparse(file.Path())) GTEST_SKIP() << "a file of 10 TiB takes 10 TiB here";
  // Not by resizing: some run-times want the room to be there.
  ASSERT_TRUE(file.FillWithPattern(10 * 1024 * kGiB + 76, 1));
  ASSERT_EQ(10 * 1024 * kGiB + 77, file.Size());
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  memory.FillWith(1);
  EXPECT_EQ((Outcome{kOK, 4 * Page()}),
            ReadInto(source, 7 * 1024 * kGiB, {{memory.At(), 4 * Page()}}));
  EXPECT_TRUE(memory.IsFilledWith(0, 0, 4 * Page()));
  memory.FillWith(1);
  EXPECT_EQ((Outcome{kPartial, Page() + 77}),
            ReadInto(source, 10 * 1024 * kGiB - Page(), PagesOf(memory, {2, 0})));
  EXPECT_TRUE(memory.IsFilledWith(0, 2 * Page(), Page()));
  EXPECT_TRUE(memory.IsFilledWith(0, 0, 76));
  EXPECT_TRUE(HasPattern(memory.At(76), 1, 10 * 1024 * kGiB + 76));
}

TEST_F(NativeFileTransferTest, ReadsFromHalfTheOffsetRangeOnAreBehindTheEnd) {
  const Memory memory(2 * Page());
  const TestFile file("huge-offset-read");
  ASSERT_TRUE(file.FillWithPattern(0, 4 * Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  const std::uint64_t half = std::uint64_t{1} << 63;
  for (const std::uint64_t offset : {half, half + Page(), ~std::uint64_t{0} - 2 * Page() + 1}) {
    SCOPED_TRACE(offset);
    memory.FillWith(0xA5);
    EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, offset, {{memory.At(), Page()}}));
    EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, offset, PagesOf(memory, {1, 0})));
    EXPECT_TRUE(memory.IsFilledWith(0xA5, 0, 2 * Page()));
  }
}

TEST_F(NativeFileTransferTest, ReadsAcrossHalfTheOffsetRangeAreBehindTheEnd) {
  const Memory memory(2 * Page());
  const TestFile file("half-offset-read");
  ASSERT_TRUE(file.FillWithPattern(0, 4 * Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  const std::uint64_t half = std::uint64_t{1} << 63;
  EXPECT_EQ((Outcome{kOutOfRange, 0}),
            ReadInto(source, half - 2 * Page(), PagesOf(memory, {1, 0})));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, half - Page(), PagesOf(memory, {1, 0})));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, half - Page(), PagesOf(memory, {0, 1})));
}

TEST_F(NativeFileTransferTest, WritesFromHalfTheOffsetRangeOnFail) {
  const Memory memory(2 * Page());
  const TestFile file("huge-offset-write");
  ASSERT_TRUE(file.FillWithPattern(0, 4 * Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite));
  const std::uint64_t half = std::uint64_t{1} << 63;
  for (const std::uint64_t offset :
       {half - Page(), half, half + Page(), ~std::uint64_t{0} - 2 * Page() + 1}) {
    SCOPED_TRACE(offset);
    EXPECT_EQ((Outcome{kError, 0}), WriteFrom(source, offset, PagesOf(memory, {1, 0})));
  }
  EXPECT_EQ(4 * Page(), file.Size());
  EXPECT_TRUE(file.HasPattern(0, 4 * Page()));
}

TEST_F(NativeFileTransferTest, RangesThatPassTheLastOffsetAreRefusedAtOnce) {
  const Memory memory(2 * Page());
  const TestFile file("last-offset");
  ASSERT_TRUE(file.FillWithPattern(0, 4 * Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite));
  const std::uint64_t last = ~std::uint64_t{0};
  for (const std::uint64_t offset : {last, last - Page() + 1, last - 2 * Page() + 2}) {
    EXPECT_EQ((Outcome{kOutOfRange, kUntouched}),
              ReadInto(source, offset, PagesOf(memory, {1, 0})));
    EXPECT_EQ((Outcome{kOutOfRange, kUntouched}),
              WriteFrom(source, offset, PagesOf(memory, {1, 0})));
  }
  EXPECT_TRUE(file.HasPattern(0, 4 * Page()));
}

// More pieces than the host takes in one call.
TEST_F(NativeFileTransferTest, ListsOfThousandsOfScatteredPagesAreMovedWhole) {
  constexpr std::size_t kPages = 2600;
  const Memory memory(2 * kPages * Page());
  const Pieces pieces = ScatteredPagesOf(memory);
  ASSERT_EQ(kPages, pieces.size());
  const TestFile file("thousands");
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite, /*create=*/true));
  Fill(pieces, Page());
  ASSERT_EQ((Outcome{kOK, kPages * Page()}), WriteFrom(source, Page(), pieces));
  EXPECT_TRUE(file.HasPattern(Page(), kPages * Page()));
  memory.FillWith(0);
  EXPECT_EQ((Outcome{kOK, kPages * Page()}), ReadInto(source, Page(), pieces));
  EXPECT_TRUE(HoldPattern(pieces, Page(), kPages * Page()));
  for (const std::uint64_t size :
       {2500 * Page() + 123, 2048 * Page() - 1, 1024 * Page() + 1, 1024 * Page()}) {
    ASSERT_TRUE(file.Resize(Page() + size));
    memory.FillWith(0);
    EXPECT_EQ((Outcome{kPartial, size}), ReadInto(source, Page(), pieces));
    EXPECT_TRUE(HoldPattern(pieces, Page(), size));
  }
}

// One piece of memory that appears many times in a row: gigabytes for the price of one chunk.
class RepeatedMemory {
 public:
  RepeatedMemory(std::size_t chunk, std::size_t count)
      : chunk_(chunk), count_(count), data_(RepeatMemory(chunk, count)) {
    if (!data_) std::abort();
  }
  ~RepeatedMemory() { FreeRepeatedMemory(data_, chunk_, count_); }
  RepeatedMemory(const RepeatedMemory&) = delete;
  RepeatedMemory& operator=(const RepeatedMemory&) = delete;

  unsigned char* At() const { return data_; }

 private:
  const std::size_t chunk_;
  const std::size_t count_;
  unsigned char* const data_;
};

constexpr std::size_t kChunk = 64 * kMiB;
constexpr std::size_t kChunks = 66;  // 4 GiB and 128 MiB

#if defined(ORVANE_THREAD_SANITIZER)
constexpr bool kTakesGigabytes = false;  // it keeps twice the memory of what is moved
#else
constexpr bool kTakesGigabytes = true;
#endif

TEST_F(NativeFileTransferTest, OneListReadsMoreThanFourGigabytes) {
  if (!kTakesGigabytes) GTEST_SKIP() << "too much memory with the thread sanitizer";
  const RepeatedMemory memory(kChunk, kChunks);
  const TestFile file("read-4g");
  const std::uint64_t size = kChunks * kChunk;
  ASSERT_TRUE(file.Resize(size));
  ASSERT_TRUE(file.FillWithPattern(size - 3 * Page(), 3 * Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  const unsigned char* const end = memory.At() + kChunk;
  // Separate pieces over the same memory, then one piece.
  Pieces pieces;
  for (std::size_t i = 0; i < kChunks; ++i) pieces.emplace_back(memory.At(), kChunk);
  EXPECT_EQ((Outcome{kOK, size}), ReadInto(source, 0, pieces));
  EXPECT_TRUE(HasPattern(end - 3 * Page(), 3 * Page(), size - 3 * Page()));
  memory.At()[kChunk - 1] ^= 1;
  EXPECT_EQ((Outcome{kOK, size}), ReadInto(source, 0, {{memory.At(), size}}));
  EXPECT_TRUE(HasPattern(end - 3 * Page(), 3 * Page(), size - 3 * Page()));
  // The same beyond the end, which lies far above 32 bits.
  ASSERT_TRUE(file.Resize(size - Page() - 5));
  memory.At()[kChunk - 3 * Page()] ^= 1;
  EXPECT_EQ((Outcome{kPartial, size - Page() - 5}), ReadInto(source, 0, {{memory.At(), size}}));
  EXPECT_TRUE(HasPattern(end - 3 * Page(), 2 * Page() - 5, size - 3 * Page()));
}

TEST_F(NativeFileTransferTest, OneListWritesMoreThanTwoGigabytes) {
  constexpr std::size_t kWritten = 33 * kChunk;  // 2 GiB and 64 MiB
  if (!kTakesGigabytes) GTEST_SKIP() << "too much memory with the thread sanitizer";
  if (GetAvailableMemory() < 5 * kGiB) GTEST_SKIP() << "less than 5 GiB of memory are available";
  if (!HasSpace(5 * kGiB)) GTEST_SKIP() << "less than 5 GiB of space are left for files";
  const RepeatedMemory memory(kChunk, 33);
  const TestFile file("write-2g");
  const Source source(OpenSource(file.Path(), OpenFor::kWrite, /*create=*/true));
  FillPattern(memory.At(), Page(), 0);
  FillPattern(memory.At() + kChunk - Page(), Page(), Page());
  EXPECT_EQ((Outcome{kOK, kWritten}), WriteFrom(source, 0, {{memory.At(), kWritten}}));
  EXPECT_EQ(kWritten, file.Size());
  for (std::size_t i = 0; i < 33; ++i) {
    const auto first = file.Read(i * kChunk, Page());
    const auto last = file.Read((i + 1) * kChunk - Page(), Page());
    EXPECT_TRUE(HasPattern(first.data(), first.size(), 0)) << i;
    EXPECT_TRUE(HasPattern(last.data(), last.size(), Page())) << i;
  }
}

TEST_F(NativeFileTransferTest, UnalignedOffsetIsReportedOnceAndChangesNothing) {
  const Memory memory(2 * Page());
  const TestFile file("unaligned");
  ASSERT_TRUE(file.FillWithPattern(0, 8 * Page()));
  if (TakesUnalignedOffsets(file.Path()))
    GTEST_SKIP() << "this file system takes any offset: " << Directory();
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite));
  const AutoRelease<Reports> reports(new Reports);
  const AutoRelease<BufferList> list(NewListOf(PagesOf(memory, {1, 0})));
  ASSERT_EQ(kPending, source->ReadAsyncWithList(100, list, reports, CacheSource::kDueASAP));
  EXPECT_EQ(std::vector<Outcome>({{kError, 0}}), reports->WaitFor(1));
  ASSERT_EQ(kPending, source->WriteAsyncWithList(100, list, reports, CacheSource::kDueASAP));
  EXPECT_EQ(std::vector<Outcome>({{kError, 0}, {kError, 0}}), reports->WaitFor(2));
  source->Close();
  EXPECT_EQ(2u, reports->Count());
  EXPECT_TRUE(file.HasPattern(0, 8 * Page()));
}

TEST_F(NativeFileTransferTest, UnalignedOffsetWorksWhereTheFileSystemTakesIt) {
  const Memory memory(2 * Page());
  const TestFile file("unaligned-taken");
  ASSERT_TRUE(file.FillWithPattern(0, 8 * Page()));
  if (!TakesUnalignedOffsets(file.Path()))
    GTEST_SKIP() << "this file system wants aligned offsets: " << Directory();
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite));
  EXPECT_EQ((Outcome{kOK, 2 * Page()}), ReadInto(source, 100, PagesOf(memory, {1, 0})));
  EXPECT_TRUE(HoldPattern(PagesOf(memory, {1, 0}), 100, 2 * Page()));
  EXPECT_EQ((Outcome{kPartial, Page() + 7}),
            ReadInto(source, 7 * Page() - 7, PagesOf(memory, {1, 0})));
  EXPECT_TRUE(HoldPattern(PagesOf(memory, {1, 0}), 7 * Page() - 7, Page() + 7));
}

// Appends from another thread while the end is being read: never a byte more than was written.
TEST_F(NativeFileTransferTest, AFileThatGrowsDuringReadsShowsOnlyWhatWasWritten) {
  constexpr std::uint64_t kLimit = 2 * kMiB;
  const TestFile file("grows");
  ASSERT_TRUE(file.FillWithPattern(0, 100));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  std::atomic<std::uint64_t> appending{100};  // raised before the append
  std::atomic<std::uint64_t> appended{100};   // raised after it
  std::thread writer([&] {
    std::minstd_rand random(1);
    while (appended < kLimit) {
      const std::uint64_t count = random() % 9000 + 1;
      appending = appended + count;
      if (!file.FillWithPattern(appended, count)) break;
      appended = appending.load();
    }
    appending = appended.load();
  });
  const Memory memory(64 * Page());
  const Pieces pieces = ScatteredPagesOf(memory);
  const std::uint64_t total = 32 * Page();
  while (appended < kLimit) {
    const std::uint64_t before = appended;
    const std::uint64_t offset = before < 20 * Page() ? 0 : (before / Page() - 20) * Page();
    const Outcome outcome = ReadInto(source, offset, pieces);
    const std::uint64_t after = appending;
    EXPECT_EQ(outcome.bytes == total ? kOK : kPartial, outcome.result);
    EXPECT_GE(outcome.bytes, std::min(before - offset, total));
    EXPECT_LE(outcome.bytes, std::min(after - offset, total));
    EXPECT_TRUE(HoldPattern(pieces, offset, outcome.bytes));
    if (HasFailure()) break;
  }
  appended = kLimit;
  writer.join();
}

// Truncates and refills the second half from another thread: the first half is always read right,
// counts never pass what the file ever held.
TEST_F(NativeFileTransferTest, AFileThatShrinksDuringReadsIsReportedToItsEnd) {
  const std::uint64_t full = 24 * Page() + 321;
  const std::uint64_t kept = 9 * Page() + 100;
  const TestFile file("shrinks");
  ASSERT_TRUE(file.FillWithPattern(0, full));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  std::atomic<bool> stop{false};
  std::thread changer([&] {
    std::minstd_rand random(2);
    while (!stop) {
      file.Resize(kept + random() % (full - kept));
      const std::uint64_t size = file.Size();
      file.FillWithPattern(size, full - size);
    }
  });
  const Memory memory(64 * Page());
  const Pieces pieces = ScatteredPagesOf(memory);
  for (int round = 0; round < 400 && !HasFailure(); ++round) {
    const Outcome outcome = ReadInto(source, 0, pieces);
    EXPECT_EQ(kPartial, outcome.result);
    EXPECT_GE(outcome.bytes, kept);
    EXPECT_LE(outcome.bytes, full);
    EXPECT_TRUE(HoldPattern(pieces, 0, kept));
    const Outcome tail = ReadInto(source, 20 * Page(), pieces);
    EXPECT_TRUE(tail == (Outcome{kOutOfRange, 0}) ||
                (tail.result == kPartial && tail.bytes > 0 && tail.bytes <= full - 20 * Page()));
  }
  stop = true;
  changer.join();
}

TEST_F(NativeFileTransferTest, ListsThatAreNotMadeOfWholePagesAreRefusedUnlocked) {
  const Memory memory(4 * Page());
  const TestFile file("pages");
  ASSERT_TRUE(file.FillWithPattern(0, 4 * Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite));
  const Pieces good = {{memory.At(), Page()}};
  const std::vector<Pieces> refused = {
      {{memory.At(), Page() / 2}},
      {{memory.At(8), Page()}},
      {good[0], {memory.At(Page()), Page() + 512}},
      {good[0], {memory.At(2 * Page() + 512), Page()}, {memory.At(Page()), Page()}},
      {good[0], {memory.At(Page()), 0}},
      {good[0], {nullptr, Page()}},
      {}};
  const AutoRelease<Reports> reports(new Reports);
  for (const Pieces& pieces : refused) {
    const AutoRelease<BufferList> list(NewListOf(pieces));
    EXPECT_EQ(kError, source->ReadAsyncWithList(0, list, reports, CacheSource::kDueASAP));
    EXPECT_EQ(kError, source->WriteAsyncWithList(0, list, reports, CacheSource::kDueASAP));
    EXPECT_EQ((Outcome{kError, kUntouched}), ReadInto(source, 0, pieces));
    for (std::size_t i = 0; i < list->GetNumberOfBuffers(); ++i) {
      // Also not unlocked once too often: the next lock counts.
      EXPECT_EQ(Buffer::kBufferUnlocked, list->GetBuffer(i)->GetLockState());
      list->GetBuffer(i)->Lock();
      EXPECT_EQ(Buffer::kBufferLocked, list->GetBuffer(i)->GetLockState());
      list->GetBuffer(i)->Unlock();
    }
    EXPECT_EQ(1, list->GetRefCount());
  }
  EXPECT_EQ(kError, source->ReadAsyncWithList(0, nullptr, reports, CacheSource::kDueASAP));
  EXPECT_EQ(kError, source->WriteAsyncWithList(0, nullptr, reports, CacheSource::kDueASAP));
  EXPECT_EQ(0u, reports->Count());
  EXPECT_EQ(1, reports->GetRefCount());
  EXPECT_EQ(kRequestSlots, CountFreeSlots());
}

}  // namespace
}  // namespace Orvane
