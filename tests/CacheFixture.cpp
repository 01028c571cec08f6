#include "CacheFixture.h"

#include <algorithm>
#include <chrono>
#include <ostream>

#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr char kUntouched = '\x5A';
constexpr std::chrono::seconds kPatience{5};

}  // namespace

void PrintTo(const CacheReport& report, std::ostream* out) {
  *out << "(" << static_cast<int>(report.result) << ", " << report.bytes << ")";
}

void ReportKeeper::Keep(const Report& report) {
  std::lock_guard lock(mutex_);
  reports_.push_back(report);
  changed_.notify_all();
}

bool ReportKeeper::WaitFor(std::size_t count) {
  std::unique_lock lock(mutex_);
  return changed_.wait_for(lock, kPatience, [&] { return reports_.size() >= count; });
}

std::vector<Report> ReportKeeper::GetReports() {
  std::lock_guard lock(mutex_);
  return reports_;
}

Report ReportKeeper::GetOne() {
  EXPECT_TRUE(WaitFor(1)) << "no report";
  const std::vector<Report> reports = GetReports();
  EXPECT_EQ(1u, reports.size());
  return reports.empty() ? Report{CacheSource::kResultPending, 0} : reports[0];
}

Target::Target(std::size_t size)
    : buffer_(new HeapBuffer(size)),
      list_(new BufferList(buffer_, /*adoptReference=*/false, 1)),
      size_(size) {
  std::fill_n(static_cast<char*>(buffer_->GetAddress()), size, kUntouched);
}

std::string Target::GetBytes(std::size_t count) {
  return std::string(static_cast<char*>(buffer_->GetAddress()), count);
}

bool Target::IsUntouchedFrom(std::size_t offset) {
  const char* const bytes = static_cast<char*>(buffer_->GetAddress());
  return std::all_of(bytes + offset, bytes + size_, [](char byte) { return byte == kUntouched; });
}

void CacheFixture::TearDown() {
  ReleaseSources();
  ReleaseCache();
  OrvaneTest::TearDown();
}

Cache* CacheFixture::MakeCache(std::size_t blocks, std::size_t blockSize) {
  ReleaseCache();
  AutoRelease<BufferFactoryHeap> factory(new BufferFactoryHeap);
  EXPECT_TRUE(factory->Initialize(blockSize, blocks, blocks, 0));
  cache_ = new Cache(factory);
  return cache_;
}

MemorySource* CacheFixture::MakeSource(const std::string& contents) {
  auto* const source = new MemorySource(contents);
  sources_.push_back(source);
  if (cache_) source->UseCache(cache_);
  return source;
}

std::string CacheFixture::Read(FileSource* source, std::uint64_t offset, std::size_t size,
                               Report* report) {
  Target target(size);
  std::uint64_t bytes = 0;
  const CacheSource::Result_t result = source->Read(offset, target.GetBuffer(), &bytes);
  if (report) {
    *report = {result, bytes};
  } else {
    EXPECT_EQ(CacheSource::kResultOK, result);
  }
  EXPECT_TRUE(result < CacheSource::kResultNone || target.IsUntouchedFrom(bytes));
  return target.GetBytes(bytes);
}

bool CacheFixture::Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    MTInterface::Sleep(1);
  }
  return true;
}

void CacheFixture::ReleaseCache() {
  if (cache_) cache_->DecRef("tests", "Orvane::CacheFixture::ReleaseCache", 0);
  cache_ = nullptr;
}

void CacheFixture::ReleaseSources() {
  for (MemorySource* const source : sources_) {
    source->DecRef("tests", "Orvane::CacheFixture::ReleaseSources", 0);
  }
  sources_.clear();
}

}  // namespace Orvane
