// How native files meet the host: modes, descriptors, special files, full and broken devices.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "FileTestTools.h"
#include "LinuxDescriptors.h"
#include "LinuxFileTools.h"

namespace Orvane {
namespace {

using Source = AutoRelease<NativeFileSource>;

// The umask, for the length of a block.
class Umask {
 public:
  explicit Umask(mode_t mask) : before_(umask(mask)) {}
  ~Umask() { umask(before_); }
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  const mode_t before_;
};

// Gives up the privileges of root for the length of a block, where there are any.
class OrdinaryUser {
 public:
  OrdinaryUser() : before_(geteuid()) { dropped_ = before_ != 0 || seteuid(65534) == 0; }
  ~OrdinaryUser() {
    if (before_ == 0 && seteuid(before_) != 0) std::abort();
  }
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

  bool IsInEffect() const { return dropped_; }

 private:
  const uid_t before_;
  bool dropped_;
};

class NativeFileHostTest : public OrvaneTest {
 protected:
  NativeFileHostTest() : memory_(64 * Page()) {}

  Pieces OnePage() const { return {{memory_.At(), Page()}}; }

  DescriptorState StateWhenOpened(OpenFor direction) {
    const TestFile file("state");
    EXPECT_TRUE(file.Resize(Page()));
    const std::string path = std::filesystem::canonical(file.Path());
    const Source source(OpenSource(path, direction));
    const DescriptorState state = StateOfDescriptorOn(path);
    EXPECT_TRUE(state.found);
    EXPECT_TRUE(source->Close());
    EXPECT_TRUE(Eventually([&] { return !StateOfDescriptorOn(path).found; }));
    return state;
  }
  static bool TakesUnbuffered() {
    const TestFile file("probe");
    const int probe = open(file.Path().c_str(), O_RDWR | O_CREAT | O_DIRECT | O_CLOEXEC, 0600);
    if (probe >= 0) close(probe);
    return probe >= 0;
  }
  // Neither direction works, and nothing blocks.
  void ExpectErrors(const std::string& path) {
    SCOPED_TRACE(path);
    for (const OpenFor direction : {OpenFor::kRead, OpenFor::kReadAndWrite}) {
      const Source source(OpenSource(path, direction));
      EXPECT_EQ((Outcome{kError, 0}), ReadInto(source, 0, OnePage()));
    }
    for (const OpenFor direction : {OpenFor::kWrite, OpenFor::kReadAndWrite}) {
      const Source source(OpenSource(path, direction));
      EXPECT_EQ((Outcome{kError, 0}), WriteFrom(source, 0, OnePage()));
    }
  }

  Memory memory_;
};

TEST_F(NativeFileHostTest, NewFilesHaveModeReadWriteForAllLessTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{022}, mode_t{027}, mode_t{077}}) {
    const TestFile file("mode");
    const Umask scope(mask);
    const Source source(OpenSource(file.Path(), OpenFor::kWrite, /*create=*/true));
    struct stat status {};
    ASSERT_EQ(0, stat(file.Path().c_str(), &status));
    EXPECT_EQ(0666u & ~mask, status.st_mode & 07777);
  }
}

TEST_F(NativeFileHostTest, DescriptorsAreClosedOnExec) {
  EXPECT_TRUE(StateWhenOpened(OpenFor::kRead).flags & O_CLOEXEC);
  EXPECT_TRUE(StateWhenOpened(OpenFor::kWrite).flags & O_CLOEXEC);
}

TEST_F(NativeFileHostTest, FilesAreWriteThroughWhenOpenedForWriting) {
  EXPECT_FALSE(StateWhenOpened(OpenFor::kRead).flags & O_DSYNC);
  EXPECT_TRUE(StateWhenOpened(OpenFor::kWrite).flags & O_DSYNC);
  EXPECT_TRUE(StateWhenOpened(OpenFor::kReadAndWrite).flags & O_DSYNC);
}

TEST_F(NativeFileHostTest, FilesAreUnbufferedWhereTheFileSystemTakesIt) {
  const bool expected = TakesUnbuffered();
  for (const OpenFor direction : {OpenFor::kRead, OpenFor::kWrite, OpenFor::kReadAndWrite}) {
    EXPECT_EQ(expected, (StateWhenOpened(direction).flags & O_DIRECT) != 0);
  }
}

TEST_F(NativeFileHostTest, AccessIsWhatWasAskedForAndTransfersBlock) {
  EXPECT_EQ(O_RDONLY, StateWhenOpened(OpenFor::kRead).flags & O_ACCMODE);
  EXPECT_EQ(O_WRONLY, StateWhenOpened(OpenFor::kWrite).flags & O_ACCMODE);
  const int flags = StateWhenOpened(OpenFor::kReadAndWrite).flags;
  EXPECT_EQ(O_RDWR, flags & O_ACCMODE);
  EXPECT_FALSE(flags & O_NONBLOCK);
  EXPECT_FALSE(flags & O_APPEND);
}

TEST_F(NativeFileHostTest, FilesThatRefuseUnbufferedAccessAreReadBuffered) {
  const Source source(OpenSource("/proc/version", OpenFor::kRead));
  EXPECT_FALSE(StateOfDescriptorOn("/proc/version").flags & O_DIRECT);
  std::string text;
  std::getline(std::ifstream("/proc/version"), text, '\0');
  EXPECT_EQ((Outcome{kPartial, text.size()}), ReadInto(source, 0, OnePage()));
  EXPECT_EQ(text, std::string(reinterpret_cast<char*>(memory_.At()), text.size()));
}

// Such files report a size of 0 and hand out a page or less at a time.
TEST_F(NativeFileHostTest, FilesThatReportNoSizeAreReadToTheirEnd) {
  std::ifstream file("/proc/kallsyms", std::ios::binary);
  std::vector<char> expected(24 * Page());
  file.read(expected.data(), static_cast<std::streamsize>(expected.size()));
  if (file.gcount() == 0) GTEST_SKIP() << "no symbols (CONFIG_KALLSYMS): file is empty";
  expected.resize(static_cast<std::size_t>(file.gcount()));
  const bool whole = expected.size() == 24 * Page();
  const Source source(OpenSource("/proc/kallsyms", OpenFor::kRead));
  EXPECT_EQ((Outcome{whole ? kOK : kPartial, expected.size()}),
            ReadInto(source, 0, {{memory_.At(), 24 * Page()}}));
  EXPECT_EQ(0, std::memcmp(expected.data(), memory_.At(), expected.size()));
}

TEST_F(NativeFileHostTest, DirectoriesReportErrors) {
  const std::string path = PathOf("a-directory");
  std::filesystem::create_directory(path);
  ExpectErrors(path);
  std::filesystem::remove(path);
}

TEST_F(NativeFileHostTest, PipesReportErrorsWithoutWaitingForAPeer) {
  const TestFile pipe("pipe");
  ASSERT_EQ(0, mkfifo(pipe.Path().c_str(), 0600));
  ExpectErrors(pipe.Path());
  // Also with a peer and data in the pipe, which stay untouched.
  const int peer = open(pipe.Path().c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(4, write(peer, "data", 4));
  ExpectErrors(pipe.Path());
  char data[8];
  EXPECT_EQ(4, read(peer, data, sizeof data));
  close(peer);
}

TEST_F(NativeFileHostTest, SocketsReportErrors) {
  const TestFile file("socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (file.Path().size() >= sizeof address.sun_path) {
    GTEST_SKIP() << "the kernel takes socket names of at most 107 bytes; use a shorter --dir";
  }
  std::memcpy(address.sun_path, file.Path().c_str(), file.Path().size());
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  ASSERT_EQ(0, listen(listener, 1));
  ExpectErrors(file.Path());
  close(listener);
}

TEST_F(NativeFileHostTest, TerminalsReportErrors) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  char name[100];
  if (terminal < 0 || unlockpt(terminal) != 0 || ptsname_r(terminal, name, sizeof name) != 0) {
    if (terminal >= 0) close(terminal);
    GTEST_SKIP() << "no /dev/ptmx or /dev/pts: no terminal can be made to open";
  }
  ExpectErrors(name);
  close(terminal);
}

TEST_F(NativeFileHostTest, DevicesWithoutEndAnswerAsTheyDo) {
  const Source null(OpenSource("/dev/null", OpenFor::kReadAndWrite));
  EXPECT_EQ((Outcome{kOutOfRange, 0}), ReadInto(null, 0, OnePage()));
  EXPECT_EQ((Outcome{kOK, Page()}), WriteFrom(null, 0, OnePage()));
  const Source zero(OpenSource("/dev/zero", OpenFor::kRead));
  memory_.FillWith(1);
  EXPECT_EQ((Outcome{kOK, 32 * Page()}), ReadInto(zero, 0, ScatteredPagesOf(memory_)));
  EXPECT_TRUE(memory_.IsFilledWith(0, Page(), Page()));
  const Source full(OpenSource("/dev/full", OpenFor::kWrite));
  EXPECT_EQ((Outcome{kError, 0}), WriteFrom(full, 0, OnePage()));
}

TEST_F(NativeFileHostTest, SymbolicLinksAreFollowedAndLoopsReportErrors) {
  const TestFile file("target");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  const TestFile link("link");
  ASSERT_EQ(0, symlink(file.Path().c_str(), link.Path().c_str()));
  {
    const Source source(OpenSource(link.Path(), OpenFor::kRead));
    EXPECT_EQ((Outcome{kOK, Page()}), ReadInto(source, 0, OnePage()));
    EXPECT_TRUE(source->Delete());
  }
  EXPECT_TRUE(file.Exists());
  ASSERT_EQ(0, symlink(link.Path().c_str(), link.Path().c_str()));
  ExpectErrors(link.Path());
}

TEST_F(NativeFileHostTest, AReadOnlyFileOpenedForWritingReportsErrors) {
  const TestFile file("read-only");
  ASSERT_TRUE(file.FillWithPattern(0, Page()));
  ASSERT_EQ(0, chmod(file.Path().c_str(), 0444));
  const OrdinaryUser user;
  if (!user.IsInEffect()) GTEST_SKIP() << "root may write it, and seteuid is denied";
  const Source writer(OpenSource(file.Path(), OpenFor::kReadAndWrite));
  EXPECT_EQ((Outcome{kError, 0}), WriteFrom(writer, 0, OnePage()));
  EXPECT_EQ((Outcome{kError, 0}), ReadInto(writer, 0, OnePage()));
  EXPECT_TRUE(file.HasPattern(0, Page()) || access(Directory().c_str(), X_OK) != 0);
}

TEST_F(NativeFileHostTest, AProgramThatRunsCannotBeWritten) {
  const Source source(OpenSource("/proc/self/exe", OpenFor::kWrite));
  EXPECT_EQ((Outcome{kError, 0}), WriteFrom(source, 0, OnePage()));
}

// Needs the privilege to mount.
class NativeFileMountTest : public NativeFileHostTest {
 protected:
  // Writes more than there is room for: an error, and no byte counted that is not there.
  void ExpectFull(const std::string& path, std::uint64_t size) {
    const Memory memory(static_cast<std::size_t>(2 * size));
    FillPattern(memory.At(), memory.Size() / 2, 0);
    const Source source(OpenSource(path, OpenFor::kReadAndWrite, /*create=*/true));
    const Outcome outcome = WriteFrom(source, 0, {{memory.At(), memory.Size() / 2}});
    EXPECT_EQ(kError, outcome.result);
    EXPECT_LT(outcome.bytes, size);
    struct stat status {};
    ASSERT_EQ(0, stat(path.c_str(), &status));
    EXPECT_LE(outcome.bytes, static_cast<std::uint64_t>(status.st_size));
    const Pieces behind = {{memory.At(memory.Size() / 2), memory.Size() / 2}};
    if (outcome.bytes > 0) {
      const Outcome read = ReadInto(source, 0, behind);
      EXPECT_GE(read.bytes, outcome.bytes);
      EXPECT_TRUE(HasPattern(behind[0].first, static_cast<std::size_t>(outcome.bytes), 0));
    }
    // What is there already can still be written.
    if (outcome.bytes >= Page()) {
      EXPECT_EQ((Outcome{kOK, Page()}), WriteFrom(source, 0, {{memory.At(), Page()}}));
    }
    EXPECT_TRUE(source->Delete());
  }
};

TEST_F(NativeFileMountTest, AFullFileSystemInMemoryReportsErrors) {
  if (!EnterPrivateMounts()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to mount tmpfs";
  const Mount mount({"-t", "tmpfs", "-o", "size=256k", "none"});
  ASSERT_TRUE(mount.IsMounted());
  ExpectFull(mount.PathOf("full"), 1 << 20);
}

TEST_F(NativeFileMountTest, AFullDiskReportsErrors) {
  if (!EnterPrivateMounts()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to mount";
  const TestFile image("image-full");
  ASSERT_TRUE(image.Resize(4 << 20));
  if (!RunProgram({"mkfs.ext4", "-q", "-F", image.Path()})) GTEST_SKIP() << "needs mkfs.ext4";
  const Mount mount({"-o", "loop", image.Path()});
  if (!mount.IsMounted()) GTEST_SKIP() << "needs a loop device";
  ExpectFull(mount.PathOf("full"), 8 << 20);
}

// The device loses its second half while a file lies on both.
TEST_F(NativeFileMountTest, ABrokenDiskReportsErrorsBehindTheBytesItStillHas) {
  if (!EnterPrivateMounts()) GTEST_SKIP() << "needs CAP_SYS_ADMIN to mount";
  constexpr std::size_t kSize = 24 << 20;
  const TestFile image("image-broken");
  ASSERT_TRUE(image.Resize(32 << 20));
  if (!RunProgram({"mkfs.ext4", "-q", "-F", "-O", "^has_journal", image.Path()})) {
    GTEST_SKIP() << "needs mkfs.ext4";
  }
  const Mount mount({"-o", "loop", image.Path()});
  if (!mount.IsMounted()) GTEST_SKIP() << "needs a loop device";
  const Memory memory(kSize);
  const Source source(OpenSource(mount.PathOf("file"), OpenFor::kReadAndWrite, /*create=*/true));
  FillPattern(memory.At(), kSize, 0);
  ASSERT_EQ((Outcome{kOK, kSize}), WriteFrom(source, 0, {{memory.At(), kSize}}));
  sync();
  ASSERT_TRUE(image.Resize(12 << 20));
  std::uint64_t bad = 0;
  std::uint64_t good = 0;
  for (std::uint64_t offset = 0; offset < kSize; offset += 1 << 20) {
    memory.FillWith(0);
    const Outcome outcome = ReadInto(source, offset, {{memory.At(), 1 << 20}});
    EXPECT_TRUE(outcome == (Outcome{kOK, 1 << 20}) || outcome.result == kError) << offset;
    EXPECT_TRUE(outcome.result == kOK || outcome.bytes < (1 << 20)) << offset;
    EXPECT_TRUE(HasPattern(memory.At(), static_cast<std::size_t>(outcome.bytes), offset));
    ++(outcome.result == kOK ? good : bad);
  }
  EXPECT_GT(good, 0u);
  EXPECT_GT(bad, 0u);
  const Outcome whole = ReadInto(source, 0, {{memory.At(), kSize}});
  EXPECT_EQ(kError, whole.result);
  EXPECT_TRUE(HasPattern(memory.At(), static_cast<std::size_t>(whole.bytes), 0));
  ASSERT_TRUE(image.Resize(32 << 20));
}

}  // namespace
}  // namespace Orvane
