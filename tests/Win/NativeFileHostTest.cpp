// What native files are to this host: how they are opened and shared, and which calls move them.
#include "OSServices/Win/AsyncPortWin.h"
#include "OSServices/Win/HostResultWin.h"

// Behind those, whose enumerators have the names of its constants.
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

}  // namespace
}  // namespace Orvane
