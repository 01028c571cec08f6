// Names, opening, closing and deleting of native files.
#include <filesystem>

#include "FileTestTools.h"
#include "TestHost.h"

namespace Orvane {
namespace {

using Source = AutoRelease<NativeFileSource>;

class NativeFileTest : public OrvaneTest {
 protected:
  NativeFileTest() : memory_(4 * Page()) {}

  Pieces OnePage() const { return {{memory_.At(), Page()}}; }

  Memory memory_;
};

TEST_F(NativeFileTest, OpenOfAMissingFileIsTrueAndTheReadReportsAnError) {
  const TestFile file("missing");
  const Source source(NewSource(file.Path()));
  EXPECT_TRUE(source->Open(true, false, false));
  EXPECT_TRUE(source->IsOpenForRead());
  EXPECT_EQ((Outcome{kError, 0}), ReadInto(source, 0, OnePage()));
  const AutoRelease<Reports> reports(new Reports);
  const AutoRelease<BufferList> list(NewListOf(OnePage()));
  EXPECT_EQ(kPending, source->ReadAsyncWithList(0, list, reports, CacheSource::kDueASAP));
  EXPECT_EQ(std::vector<Outcome>({{kError, 0}}), reports->WaitFor(1));
  EXPECT_FALSE(file.Exists());
  EXPECT_TRUE(source->Close());
}

TEST_F(NativeFileTest, OpenWithoutANameFails) {
  const Source source(NativeFileSysInterface::NewNativeFileSource(nullptr));
  EXPECT_EQ(nullptr, source->GetName());
  EXPECT_FALSE(source->Open(true, false, false));
  EXPECT_FALSE(source->IsOpenForRead());
  EXPECT_FALSE(source->Close());
  EXPECT_FALSE(source->Delete());
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), ReadInto(source, 0, OnePage()));
}

TEST_F(NativeFileTest, SecondOpenFailsAndChangesNothing) {
  const TestFile file("twice");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  EXPECT_FALSE(source->Open(false, true, false));
  EXPECT_FALSE(source->Open(true, false, false));
  EXPECT_TRUE(source->IsOpenForRead());
  EXPECT_FALSE(source->IsOpenForWrite());
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, OnePage()));
}

TEST_F(NativeFileTest, CanBeReopenedForAnotherDirection) {
  const TestFile file("reopened");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  EXPECT_TRUE(source->Close());
  EXPECT_TRUE(source->Open(false, true, false));
  EXPECT_FALSE(source->IsOpenForRead());
  EXPECT_TRUE(source->IsOpenForWrite());
  EXPECT_EQ((Outcome{kOK, Page()}), WriteFrom(source, 0, OnePage()));
  EXPECT_TRUE(source->Close());
  EXPECT_TRUE(source->Open(true, true, false));
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, OnePage()));
  EXPECT_EQ((Outcome{kOK, Page()}), WriteFrom(source, 0, OnePage()));
}

TEST_F(NativeFileTest, FlagsAndNameStayAfterClose) {
  const TestFile file("flags");
  const Source source(OpenSource(file.Path(), OpenFor::kRead, /*create=*/true));
  EXPECT_TRUE(source->Close());
  EXPECT_TRUE(source->IsOpenForRead());
  EXPECT_FALSE(source->IsOpenForWrite());
  EXPECT_FALSE(source->SetName("another"));
  EXPECT_EQ(file.Path(), source->GetName());
}

TEST_F(NativeFileTest, SetNameIsForSourcesThatWereNeverOpened) {
  const Source source(NativeFileSysInterface::NewNativeFileSource(nullptr));
  EXPECT_FALSE(source->SetName(nullptr));
  EXPECT_TRUE(source->SetName("first"));
  EXPECT_STREQ("first", source->GetName());
  EXPECT_FALSE(source->SetName(nullptr));
  EXPECT_STREQ("first", source->GetName());
  EXPECT_TRUE(source->SetName(""));
  EXPECT_STREQ("", source->GetName());
  EXPECT_TRUE(source->SetName("/dev/null"));
  EXPECT_TRUE(source->Open(true, false, false));
  EXPECT_FALSE(source->SetName("another"));
  EXPECT_STREQ("/dev/null", source->GetName());
}

TEST_F(NativeFileTest, SetNameIsAllowedWhileOpenForNeitherDirection) {
  const TestFile file("neither");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kNeither));
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), ReadInto(source, 0, OnePage()));
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), WriteFrom(source, 0, OnePage()));
  EXPECT_TRUE(source->SetName("another"));
  EXPECT_TRUE(source->Close());
}

TEST_F(NativeFileTest, NameIsACopyOfAnyLength) {
  std::string name(100000, 'x');
  const Source source(NewSource(name));
  const std::string kept = name;
  name.assign(name.size(), 'y');
  EXPECT_EQ(kept, source->GetName());
  // No such path can exist.
  EXPECT_TRUE(source->Open(true, true, true));
  EXPECT_EQ((Outcome{kError, 0}), ReadInto(source, 0, OnePage()));
  EXPECT_FALSE(source->Delete());
}

TEST_F(NativeFileTest, CloseOfAClosedSourceFails) {
  const Source source(NewSource("/dev/null"));
  EXPECT_FALSE(source->Close());
  EXPECT_TRUE(source->Open(true, false, false));
  EXPECT_TRUE(source->Close());
  EXPECT_FALSE(source->Close());
}

TEST_F(NativeFileTest, WrongDirectionIsNotSupported) {
  const TestFile file("direction");
  const Source writer(OpenSource(file.Path(), OpenFor::kWrite, /*create=*/true));
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), ReadInto(writer, 0, OnePage()));
  const Source reader(OpenSource(file.Path(), OpenFor::kRead));
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), WriteFrom(reader, 0, OnePage()));
  const AutoRelease<Reports> reports(new Reports);
  const AutoRelease<BufferList> list(NewListOf(OnePage()));
  EXPECT_EQ(kNotSupported,
            writer->ReadAsyncWithListNonCached(0, list, reports, CacheSource::kDueASAP));
  EXPECT_EQ(kNotSupported,
            reader->WriteAsyncWithListNonCached(0, list, reports, CacheSource::kDueASAP));
  EXPECT_EQ(0u, reports->Count());
  EXPECT_EQ(1, reports->GetRefCount());
  EXPECT_EQ(1, list->GetRefCount());
}

TEST_F(NativeFileTest, ClosedSourceSupportsNothing) {
  const TestFile file("closed");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(NewSource(file.Path()));
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), ReadInto(source, 0, OnePage()));
  EXPECT_TRUE(source->Open(true, true, false));
  EXPECT_TRUE(source->Close());
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), ReadInto(source, 0, OnePage()));
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), WriteFrom(source, 0, OnePage()));
  source->Cancel();
}

TEST_F(NativeFileTest, CreateMakesAMissingFileAndKeepsAnExistingOne) {
  const TestFile file("created");
  {
    const Source source(OpenSource(file.Path(), OpenFor::kRead, /*create=*/true));
    EXPECT_TRUE(file.Exists());
    EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(source, 0, OnePage()));
  }
  ASSERT_TRUE(file.FillWithPattern(0, 1000));
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite, /*create=*/true));
  EXPECT_EQ(1000u, file.Size());
  EXPECT_EQ((Outcome{kPartial, 1000}), ReadInto(source, 0, OnePage()));
  EXPECT_TRUE(HasPattern(memory_.At(), 1000, 0));
}

TEST_F(NativeFileTest, OpenForWriteDoesNotTruncate) {
  const TestFile file("kept");
  ASSERT_TRUE(file.FillWithPattern(0, 3 * Page() + 5));
  const Source source(OpenSource(file.Path(), OpenFor::kWrite));
  EXPECT_TRUE(source->Close());
  EXPECT_EQ(3 * Page() + 5, file.Size());
  EXPECT_TRUE(file.HasPattern(0, 3 * Page() + 5));
}

TEST_F(NativeFileTest, DeleteClosesAndRemovesTheFile) {
  const TestFile file("deleted");
  const Source source(OpenSource(file.Path(), OpenFor::kReadAndWrite, /*create=*/true));
  EXPECT_TRUE(source->Delete());
  EXPECT_FALSE(file.Exists());
  EXPECT_FALSE(source->Close());
  EXPECT_EQ((Outcome{kNotSupported, kUntouched}), ReadInto(source, 0, OnePage()));
  EXPECT_FALSE(source->Delete());
}

TEST_F(NativeFileTest, DeleteWorksOnASourceThatIsNotOpen) {
  const TestFile file("deleted-closed");
  ASSERT_TRUE(file.Resize(1));
  const Source source(NewSource(file.Path()));
  EXPECT_TRUE(source->Delete());
  EXPECT_FALSE(file.Exists());
}

TEST_F(NativeFileTest, DeleteOfAMissingFileFailsButCloses) {
  const TestFile file("never-there");
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  EXPECT_FALSE(source->Delete());
  EXPECT_FALSE(source->Close());
}

TEST_F(NativeFileTest, DeleteOfADirectoryFails) {
  const std::string path = PathOf("directory");
  std::filesystem::create_directory(path);
  const Source source(NewSource(path));
  EXPECT_FALSE(source->Delete());
  EXPECT_TRUE(std::filesystem::remove(path));
}

TEST_F(NativeFileTest, AnOpenFileOutlivesItsName) {
  const TestFile file("unlinked");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(OpenSource(file.Path(), OpenFor::kRead));
  ASSERT_TRUE(file.Remove());
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, OnePage()));
  EXPECT_TRUE(HasPattern(memory_.At(), Page(), 0));
}

TEST_F(NativeFileTest, TwoSourcesShareAFile) {
  const TestFile file("shared");
  const Source writer(OpenSource(file.Path(), OpenFor::kWrite, /*create=*/true));
  const Source reader(OpenSource(file.Path(), OpenFor::kRead));
  FillPattern(memory_.At(), Page(), 0, 7);
  EXPECT_EQ((Outcome{kOK, Page()}), WriteFrom(writer, 0, OnePage()));
  memory_.FillWith(0);
  EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(reader, 0, OnePage()));
  EXPECT_TRUE(HasPattern(memory_.At(), Page(), 0, 7));
}

TEST_F(NativeFileTest, SourcesCanGatherReads) {
  const Source source(NewSource("any"));
  EXPECT_TRUE(source->CanGatherReads());
  EXPECT_EQ(Page(), source->GetAlignmentRequirement());
}

TEST_F(NativeFileTest, ReopeningManyTimesLeavesNoDescriptorBehind) {
  const TestFile file("many-times");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const Source source(NewSource(file.Path()));
  for (int round = 0; round < 200; ++round) {
    ASSERT_TRUE(source->Open(true, false, false));
    ASSERT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, OnePage()));
    ASSERT_TRUE(source->Close());
  }
  EXPECT_TRUE(Eventually([&] { return !IsOpenHere(file.Path()); }));
}

class NativeFileNameTest : public NativeFileTest {
 protected:
  NativeFileNameTest() : directory_(PathOf("names")) {
    std::filesystem::create_directories(directory_);
  }
  ~NativeFileNameTest() override { std::filesystem::remove_all(directory_); }

  std::string OnlyEntry() const {
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
      found += entry.path().filename().string();
    }
    return found;
  }

  // Creates a file under the name, and finds the bytes and exactly this name again.
  void CheckName(const std::string& name) {
    SCOPED_TRACE(name);
    const Source source(
        OpenSource(directory_ + "/" + name, OpenFor::kReadAndWrite, /*create=*/true));
    FillPattern(memory_.At(), Page(), 0);
    EXPECT_EQ((Outcome{kOK, Page()}), WriteFrom(source, 0, OnePage()));
    EXPECT_EQ(name, OnlyEntry());
    memory_.FillWith(0);
    EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, OnePage()));
    EXPECT_TRUE(HasPattern(memory_.At(), Page(), 0));
    EXPECT_TRUE(source->Delete());
    EXPECT_EQ("", OnlyEntry());
  }

  const std::string directory_;
};

TEST_F(NativeFileNameTest, NamesAreNeverInterpreted) {
  for (const std::string& name : GetOddFileNames()) CheckName(name);
}

TEST_F(NativeFileNameTest, LongestNameWorksAndLongerOnesFail) {
  CheckName(std::string(GetLongestFileName(directory_), 'n'));
  const Source source(
      OpenSource(directory_ + "/" + std::string(256, 'n'), OpenFor::kReadAndWrite, true));
  EXPECT_EQ((Outcome{kError, 0}), WriteFrom(source, 0, OnePage()));
  EXPECT_EQ("", OnlyEntry());
}

TEST_F(NativeFileNameTest, RelativeNamesStartAtTheWorkingDirectory) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory_);
  {
    const Source source(OpenSource("-rf", OpenFor::kWrite, /*create=*/true));
    EXPECT_EQ("-rf", OnlyEntry());
    EXPECT_TRUE(source->Delete());
  }
  std::filesystem::current_path(before);
}

}  // namespace
}  // namespace Orvane
