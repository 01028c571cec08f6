#include "CacheStressModel.h"

#include <algorithm>
#include <cstring>

namespace Orvane {
namespace {

constexpr unsigned kVersionShift = 40;
constexpr std::uint64_t kPlaceMask = (std::uint64_t{1} << kVersionShift) - 1;
constexpr std::size_t kWord = 8;

std::uint64_t NextFileNumber() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

NativeFileSource* Attached(NativeFileSource* source, Cache* cache) {
  if (cache) source->UseCache(cache);
  return source;
}

}  // namespace

void RaiseTo(std::atomic<std::uint64_t>* value, std::uint64_t least) {
  std::uint64_t seen = *value;
  while (seen < least && !value->compare_exchange_weak(seen, least)) {
  }
}

std::uint64_t StressEvent::Now() {
  static std::atomic<std::uint64_t> last{0};
  return ++last;
}

StressFile::StressFile(std::size_t pages, std::size_t maxPages)
    : number_(NextFileNumber()),
      file_("cached-stress" + std::to_string(number_)),
      pages_(maxPages),
      leastEnd_(pages * Page()),
      mostEnd_(pages * Page()) {
  EXPECT_TRUE(file_.Resize(pages * Page()));
}

bool StressFile::Claim(std::size_t page, std::size_t count) {
  for (std::size_t k = 0; k < count; ++k) {
    if (page + k < pages_.size() && !pages_[page + k].claimed.exchange(true)) continue;
    Unclaim(page, k);
    return false;
  }
  return true;
}

void StressFile::Unclaim(std::size_t page, std::size_t count) {
  for (std::size_t k = 0; k < count; ++k) pages_[page + k].claimed = false;
}

std::uint64_t StressFile::BeginWrite(std::size_t page, std::size_t count) {
  const std::uint64_t version = ++lastVersion_;
  for (std::size_t k = 0; k < count; ++k) pages_[page + k].started = version;
  RaiseTo(&mostEnd_, (page + count) * Page());
  return version;
}

void StressFile::EndWrite(std::size_t page, std::size_t count, std::uint64_t version) {
  for (std::size_t k = 0; k < count; ++k) pages_[page + k].written = version;
  RaiseTo(&leastEnd_, (page + count) * Page());
}

std::uint64_t StressFile::WordAt(std::uint64_t position, std::uint64_t version) const {
  std::uint64_t place =
      (position / kWord + 1) * 0x9E3779B97F4A7C15U + number_ * 0xD6E8FEB86659FD93U;
  place ^= place >> 29;
  return version == 0 ? 0 : (version << kVersionShift) | (place & kPlaceMask);
}

void StressFile::Fill(unsigned char* data, std::size_t size, std::uint64_t offset,
                      std::uint64_t version) const {
  for (std::size_t done = 0; done < size; done += kWord) {
    const std::uint64_t word = WordAt(offset + done, version);
    std::memcpy(data + done, &word, std::min(kWord, size - done));
  }
}

bool StressFile::CanHold(const unsigned char* data, std::size_t size, std::uint64_t offset,
                         const std::vector<std::uint64_t>& least) const {
  const std::size_t firstPage = static_cast<std::size_t>(offset / Page());
  std::size_t page = pages_.size();
  std::uint64_t most = 0;
  for (std::size_t done = 0; done < size;) {
    const std::uint64_t position = offset + done;
    const std::size_t in = static_cast<std::size_t>(position % kWord);
    const std::size_t bytes = std::min(kWord - in, size - done);
    if (position / Page() != page) {
      page = static_cast<std::size_t>(position / Page());
      if (page >= pages_.size()) return false;
      most = MostVersion(page);
    }
    if (!WordCanBe(data + done, position, bytes, least[page - firstPage], most)) return false;
    done += bytes;
  }
  return true;
}

// Of a word that was read in part, what is there of its place is checked, and its version if all of
// it is there.
bool StressFile::WordCanBe(const unsigned char* data, std::uint64_t position, std::size_t size,
                           std::uint64_t least, std::uint64_t most) const {
  const std::size_t in = static_cast<std::size_t>(position % kWord);
  std::uint64_t word = 0;
  std::memcpy(reinterpret_cast<unsigned char*>(&word) + in, data, size);
  if (word == 0 && least == 0) return true;
  const std::uint64_t all = ~std::uint64_t{0};
  const std::uint64_t mask = (size == kWord ? all : ((std::uint64_t{1} << 8 * size) - 1)) << 8 * in;
  const std::uint64_t expected = WordAt(position - in, 1);
  if ((word & mask & kPlaceMask) != (expected & mask & kPlaceMask)) return false;
  if (in + size < kWord || in > kVersionShift / 8) return true;
  const std::uint64_t version = word >> kVersionShift;
  return version != 0 && version >= least && version <= most;
}

bool StressFile::AgreesWithDisk() const {
  const std::uint64_t end = file_.Size();
  if (end < leastEnd_ || end > mostEnd_) return false;
  const auto data = file_.Read(0, static_cast<std::size_t>(end));
  std::vector<std::uint64_t> least;
  for (const PageState& page : pages_) least.push_back(page.written);
  return data.size() == end && CanHold(data.data(), data.size(), 0, least);
}

StressSource::StressSource(std::shared_ptr<StressFile> file, Cache* cache)
    : file_(std::move(file)),
      blockSize_(cache ? cache->GetBlockSize() : 0),
      source_(Attached(NewSource(file_->Path()), cache)),
      pages_(file_->MaxPages()),
      endSeen_(0) {
  SeesAtLeast(0, WhatFileHolds(0, pages_.size()));
  EXPECT_TRUE(source_->Open(/*forRead=*/true, /*forWrite=*/true, /*create=*/false));
}

StressSource::Start StressSource::BeginRequest(std::uint64_t offset, std::uint64_t size) const {
  const std::size_t first = static_cast<std::size_t>(offset / Page());
  const std::size_t count = PagesBehind(offset, size) - first;
  Known known = WhatFileHolds(first, count);
  if (IsCached()) {
    known.end = endSeen_;
    for (std::size_t k = 0; k < count; ++k) known.versions[k] = pages_[first + k].seen;
  }
  return {StressEvent::Now(), known.end, std::move(known.versions)};
}

bool StressSource::MayBeInvalidated(const Start& start, std::uint64_t offset,
                                    std::uint64_t size) const {
  if (!IsCached()) return false;
  const std::uint64_t first = offset - offset % blockSize_;
  const std::uint64_t end = (offset + size + blockSize_ - 1) / blockSize_ * blockSize_;
  for (std::size_t page = static_cast<std::size_t>(first / Page());
       page < PagesBehind(first, end - first); ++page) {
    if (pages_[page].invalidations.WentOnSince(start.time)) return true;
  }
  return end > pages_.size() * Page() && invalidationsBehind_.WentOnSince(start.time);
}

void StressSource::Cancel() {
  const StressEventScope scope(&cancels_);
  source_->Cancel();
}

void StressSource::Purge() {
  Cache* const cache = source_->GetCache();
  if (!cache) return;
  const StressEventScope scope(&cancels_);
  const Known known = WhatFileHolds(0, pages_.size());
  cache->Purge(source_);
  SeesAtLeast(0, known);
}

void StressSource::Invalidate(std::uint64_t offset, std::uint64_t size) {
  Cache* const cache = source_->GetCache();
  if (!cache) return;
  const std::size_t first = static_cast<std::size_t>(offset / Page());
  const std::size_t count = PagesBehind(offset, size) - first;
  const bool passesTheLastPage = offset + size > pages_.size() * Page();
  if (passesTheLastPage) invalidationsBehind_.Begin();
  BeginStartOfWrite(first, count);
  Known known = WhatFileHolds(first, count);
  cache->Invalidate(source_, offset, size);
  known.end = 0;  // that may be cached elsewhere
  SeesAtLeast(first, known);
  EndStartOfWrite(first, count);
  if (passesTheLastPage) invalidationsBehind_.End();
}

bool StressSource::CloseAndOpen() {
  const std::unique_lock<std::mutex> lock(opening_, std::try_to_lock);
  if (!lock.owns_lock() || closedForGood_) return true;
  const StressEventScope cancel(&cancels_);
  const StressEventScope close(&closes_);
  const bool closed = source_->Close();
  const Known known = WhatFileHolds(0, pages_.size());
  const bool opened = source_->Open(/*forRead=*/true, /*forWrite=*/true, /*create=*/false);
  if (opened && IsCached()) SeesAtLeast(0, known);
  return (closed && opened) || closedForGood_;
}

void StressSource::CloseForGood() {
  closedForGood_ = true;
  cancels_.Begin();
  closes_.Begin();
  source_->Close();
}

void StressSource::BeginStartOfWrite(std::size_t page, std::size_t count) {
  for (std::size_t k = 0; k < count; ++k) pages_[page + k].invalidations.Begin();
}

void StressSource::EndStartOfWrite(std::size_t page, std::size_t count) {
  for (std::size_t k = 0; k < count; ++k) pages_[page + k].invalidations.End();
}

// The file's own knowledge first: who sees the source's finds at least that.
void StressSource::EndWrite(std::size_t page, std::size_t count, std::uint64_t version) {
  file_->EndWrite(page, count, version);
  SeesAtLeast(page, {(page + count) * Page(), std::vector<std::uint64_t>(count, version)});
}

std::size_t StressSource::PagesBehind(std::uint64_t offset, std::uint64_t size) const {
  const std::uint64_t end = (offset + size + Page() - 1) / Page();
  const std::uint64_t first = offset / Page();
  return static_cast<std::size_t>(
      std::max<std::uint64_t>(first, std::min<std::uint64_t>(end, pages_.size())));
}

StressSource::Known StressSource::WhatFileHolds(std::size_t page, std::size_t count) const {
  Known known{file_->LeastEnd(), {}};
  for (std::size_t k = 0; k < count; ++k) known.versions.push_back(file_->LeastVersion(page + k));
  return known;
}

void StressSource::SeesAtLeast(std::size_t page, const Known& known) {
  for (std::size_t k = 0; k < known.versions.size(); ++k) {
    RaiseTo(&pages_[page + k].seen, known.versions[k]);
  }
  RaiseTo(&endSeen_, known.end);
}

}  // namespace Orvane
