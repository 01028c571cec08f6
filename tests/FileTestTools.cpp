#include "FileTestTools.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>

#include "MTInterface.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kReportLimit = std::chrono::seconds(60);
constexpr auto kPollLimit = std::chrono::seconds(30);

// A descriptor that is closed at the end of the block.
class Descriptor {
 public:
  Descriptor(const std::string& path, int flags)
      : number_(open(path.c_str(), flags | O_CLOEXEC, 0666)) {}
  ~Descriptor() {
    if (number_ >= 0) close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return number_; }

 private:
  const int number_;
};

}  // namespace

std::size_t Page() {
  return static_cast<std::size_t>(PhysMemInterface::GetPageSize());
}

bool Eventually(const std::function<bool()>& condition) {
  const auto limit = Clock::now() + kPollLimit;
  while (!condition()) {
    if (Clock::now() > limit) return false;
    MTInterface::Sleep(1);
  }
  return true;
}

Memory::Memory(std::size_t size) : size_(size), data_(nullptr) {
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) std::abort();
  data_ = static_cast<unsigned char*>(memory);
}

Memory::~Memory() {
  munmap(data_, size_);
}

void Memory::FillWith(unsigned char value) const {
  std::memset(data_, value, size_);
}

bool Memory::IsFilledWith(unsigned char value, std::size_t offset, std::size_t size) const {
  return std::all_of(data_ + offset, data_ + offset + size,
                     [value](unsigned char byte) { return byte == value; });
}

BufferList* NewListOf(const Pieces& pieces) {
  auto* const list = new BufferList(pieces.size());
  for (const auto& [address, size] : pieces) {
    list->AddBuffer(new HostBuffer(address, size), /*adoptReference=*/true);
  }
  return list;
}

Pieces PagesOf(const Memory& memory, const std::vector<std::size_t>& order) {
  Pieces pieces;
  for (const std::size_t page : order) pieces.emplace_back(memory.At(page * Page()), Page());
  return pieces;
}

Pieces ScatteredPagesOf(const Memory& memory) {
  Pieces pieces;
  for (std::size_t page = memory.Size() / Page() / 2; page > 0; --page) {
    pieces.emplace_back(memory.At((2 * page - 1) * Page()), Page());
  }
  return pieces;
}

void PrintTo(const Outcome& outcome, std::ostream* out) {
  *out << "result " << static_cast<int>(outcome.result) << " with " << outcome.bytes << " bytes";
}

Outcome ReadInto(FileSource* source, std::uint64_t offset, const Pieces& pieces) {
  const AutoRelease<BufferList> list(NewListOf(pieces));
  std::uint64_t bytes = kUntouched;
  const auto result = source->ReadWithList(offset, list, &bytes);
  return {result, bytes};
}

Outcome WriteFrom(FileSource* source, std::uint64_t offset, const Pieces& pieces) {
  const AutoRelease<BufferList> list(NewListOf(pieces));
  std::uint64_t bytes = kUntouched;
  const auto result = source->WriteWithList(offset, list, &bytes);
  return {result, bytes};
}

TestFile::TestFile(const std::string& name) : path_(OrvaneTest::PathOf(name)) {
  unlink(path_.c_str());
}

TestFile::~TestFile() {
  unlink(path_.c_str());
}

bool TestFile::Exists() const {
  return access(path_.c_str(), F_OK) == 0;
}

std::uint64_t TestFile::Size() const {
  struct stat status {};
  return stat(path_.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
}

bool TestFile::Resize(std::uint64_t size) const {
  const Descriptor file(path_, O_RDWR | O_CREAT);
  return file.Get() >= 0 && ftruncate(file.Get(), static_cast<off_t>(size)) == 0;
}

bool TestFile::FillWithPattern(std::uint64_t position, std::uint64_t size,
                               std::uint64_t seed) const {
  const Descriptor file(path_, O_RDWR | O_CREAT);
  std::vector<unsigned char> data(std::size_t{1} << 16);
  while (size > 0) {
    const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(size, data.size()));
    FillPattern(data.data(), count, position, seed);
    const ssize_t written = pwrite(file.Get(), data.data(), count, static_cast<off_t>(position));
    if (written <= 0) return false;
    position += static_cast<std::uint64_t>(written);
    size -= static_cast<std::uint64_t>(written);
  }
  return file.Get() >= 0;
}

bool TestFile::HasPattern(std::uint64_t position, std::uint64_t size, std::uint64_t seed) const {
  const auto data = Read(position, static_cast<std::size_t>(size));
  return data.size() == size && Orvane::HasPattern(data.data(), data.size(), position, seed);
}

std::vector<unsigned char> TestFile::Read(std::uint64_t position, std::size_t size) const {
  const Descriptor file(path_, O_RDONLY);
  std::vector<unsigned char> data(size);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count =
        pread(file.Get(), data.data() + done, size - done, static_cast<off_t>(position + done));
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  data.resize(done);
  return data;
}

NativeFileSource* NewSource(const std::string& path) {
  return NativeFileSysInterface::NewNativeFileSource(path.c_str());
}

NativeFileSource* OpenSource(const std::string& path, OpenFor direction, bool create) {
  NativeFileSource* const source = NewSource(path);
  const bool forRead = direction == OpenFor::kRead || direction == OpenFor::kReadAndWrite;
  const bool forWrite = direction == OpenFor::kWrite || direction == OpenFor::kReadAndWrite;
  EXPECT_TRUE(source->Open(forRead, forWrite, create));
  return source;
}

void Reports::Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                       std::uint64_t bytes) {
  bool unlocked = true;
  for (std::size_t i = 0; i < list->GetNumberOfBuffers(); ++i) {
    unlocked = unlocked && list->GetBuffer(i)->GetLockState() == Buffer::kBufferUnlocked;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    outcomes_.push_back({result, bytes});
    offsets_.push_back(offset);
    allUnlocked_ = allUnlocked_ && unlocked;
    changed_.notify_all();
  }
  if (then_) then_({result, bytes});
}

std::size_t Reports::Count() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return outcomes_.size();
}

std::vector<Outcome> Reports::WaitFor(std::size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_until(lock, std::chrono::system_clock::now() + kReportLimit,
                      [&] { return outcomes_.size() >= count; });
  return outcomes_;
}

std::vector<std::uint64_t> Reports::Offsets() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return offsets_;
}

bool Reports::AllBuffersWereUnlocked() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return allUnlocked_;
}

BusyIoThread::BusyIoThread()
    : memory_(Page()),
      source_(OpenSource(OrvaneTest::PathOf("no-such-file"), OpenFor::kRead)),
      reports_(new Reports([this](Outcome) { Run(); })),
      list_(NewListOf({{memory_.At(), Page()}})) {
  const auto started = source_->ReadAsyncWithList(0, list_, reports_, CacheSource::kDueASAP);
  EXPECT_EQ(kPending, started) << "no slot is left";
  std::unique_lock<std::mutex> lock(mutex_);
  if (started != kPending) held_ = done_ = true;
  changed_.wait(lock, [this] { return held_; });
}

BusyIoThread::~BusyIoThread() {
  LetGo();
  // Cancels nothing: when it returns, the thread has left the callback.
  source_->Close();
}

void BusyIoThread::BeforeLettingGo(std::function<void()> work) {
  work_ = std::move(work);
}

void BusyIoThread::LetGo() {
  std::unique_lock<std::mutex> lock(mutex_);
  letGo_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return done_; });
}

void BusyIoThread::Run() {
  std::unique_lock<std::mutex> lock(mutex_);
  held_ = true;
  changed_.notify_all();
  changed_.wait(lock, [this] { return letGo_; });
  if (work_) work_();
  done_ = true;
  changed_.notify_all();
}

std::size_t CountFreeSlots() {
  const Memory memory(Page() * (kRequestSlots + 1));
  const AutoRelease<NativeFileSource> source(OpenSource("/dev/zero", OpenFor::kRead));
  const AutoRelease<Reports> reports(new Reports);
  std::size_t accepted = 0;
  {
    const BusyIoThread busy;
    for (std::size_t i = 0; i <= kRequestSlots; ++i) {
      const AutoRelease<BufferList> list(NewListOf({{memory.At(i * Page()), Page()}}));
      if (source->ReadAsyncWithList(0, list, reports, CacheSource::kDueASAP) == kPending) {
        ++accepted;
      }
    }
  }
  source->Close();
  EXPECT_EQ(accepted, reports->WaitFor(accepted).size());
  return accepted;
}

DescriptorState StateOfDescriptorOn(const std::string& path) {
  DIR* const directory = opendir("/proc/self/fd");
  DescriptorState state{false, 0};
  while (const dirent* const entry = readdir(directory)) {
    const std::string number = entry->d_name;
    char target[PATH_MAX];
    const ssize_t length = readlink(("/proc/self/fd/" + number).c_str(), target, sizeof target);
    if (length <= 0 || path != std::string(target, static_cast<std::size_t>(length))) continue;
    std::ifstream info("/proc/self/fdinfo/" + number);
    for (std::string word; info >> word;) {
      if (word != "flags:") continue;
      info >> word;
      state = {true, std::stoi(word, nullptr, 8)};
    }
  }
  closedir(directory);
  return state;
}

bool EnterPrivateMounts() {
  static const bool entered =
      unshare(CLONE_NEWNS) == 0 && mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0;
  return entered;
}

Mount::Mount(const std::vector<std::string>& arguments) : point_(OrvaneTest::PathOf("mount")) {
  std::filesystem::create_directories(point_);
  std::vector<std::string> command = {"mount"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  command.push_back(point_);
  mounted_ = RunProgram(command);
}

Mount::~Mount() {
  Unmount();
}

void Mount::Unmount() {
  if (mounted_) umount2(point_.c_str(), MNT_DETACH);
  mounted_ = false;
  rmdir(point_.c_str());
}

bool RunProgram(std::vector<std::string> arguments) {
  std::vector<char*> words;
  for (std::string& argument : arguments) words.push_back(argument.data());
  words.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const int output : {STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&actions, output, "/dev/null", O_WRONLY, 0);
  }
  pid_t child = 0;
  const int error = posix_spawnp(&child, words[0], &actions, nullptr, words.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return false;
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace Orvane
