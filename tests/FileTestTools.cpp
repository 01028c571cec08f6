#include "FileTestTools.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <system_error>

#include "MTInterface.h"
#include "PhysMemInterface.h"
#include "TestHost.h"

namespace Orvane {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kReportLimit = std::chrono::seconds(60);
constexpr auto kPollLimit = std::chrono::seconds(30);

// Opens for reading and writing; makes the file if need be.
std::fstream OpenToChange(const std::string& path) {
  std::ofstream(path, std::ios::binary | std::ios::app).close();
  return std::fstream(path, std::ios::binary | std::ios::in | std::ios::out);
}

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

Memory::Memory(std::size_t size) : size_(size), data_(ReserveMemory(size)) {}

Memory::~Memory() {
  FreeMemory(data_, size_);
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
  Remove();
}

TestFile::~TestFile() {
  Remove();
}

bool TestFile::Remove() const {
  std::error_code error;
  return std::filesystem::remove(path_, error);
}

bool TestFile::Exists() const {
  std::error_code error;
  return std::filesystem::exists(path_, error);
}

std::uint64_t TestFile::Size() const {
  std::error_code error;
  const std::uintmax_t size = std::filesystem::file_size(path_, error);
  return error ? 0 : size;
}

bool TestFile::Resize(std::uint64_t size) const {
  if (!OpenToChange(path_)) return false;
  std::error_code error;
  std::filesystem::resize_file(path_, size, error);
  return !error;
}

bool TestFile::FillWithPattern(std::uint64_t position, std::uint64_t size,
                               std::uint64_t seed) const {
  std::fstream file = OpenToChange(path_);
  file.seekp(static_cast<std::streamoff>(position));
  std::vector<unsigned char> data(std::size_t{1} << 16);
  while (size > 0 && file) {
    const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(size, data.size()));
    FillPattern(data.data(), count, position, seed);
    file.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(count));
    position += count;
    size -= count;
  }
  return static_cast<bool>(file.flush());
}

bool TestFile::HasPattern(std::uint64_t position, std::uint64_t size, std::uint64_t seed) const {
  const auto data = Read(position, static_cast<std::size_t>(size));
  return data.size() == size && Orvane::HasPattern(data.data(), data.size(), position, seed);
}

std::vector<unsigned char> TestFile::Read(std::uint64_t position, std::size_t size) const {
  std::ifstream file(path_, std::ios::binary);
  file.seekg(static_cast<std::streamoff>(position));
  std::vector<unsigned char> data(size);
  file.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(size));
  data.resize(static_cast<std::size_t>(std::max<std::streamsize>(file.gcount(), 0)));
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
  const TestFile file("counted");
  EXPECT_TRUE(file.Resize(Page()));
  const AutoRelease<NativeFileSource> source(OpenSource(file.Path(), OpenFor::kRead));
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

}  // namespace Orvane
