#include "SimMemory.h"

#include <algorithm>
#include <cstring>

#include "HostPages.h"
#include "OrvaneSimulator.h"

namespace Orvane {
namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kPoolBytes = std::size_t{256} << 20;
constexpr unsigned char kGap = 0xC9;
constexpr unsigned char kBefore = 0xB7;
constexpr unsigned char kAfter = 0xEE;

unsigned char* GetPool() {
  static auto* const pool = NewHostPages(kPoolBytes);
  return pool;
}

std::size_t usedOfPool = 0;
bool somethingIsForbidden = false;

bool IsAll(const unsigned char* from, const unsigned char* to, unsigned char value) {
  return std::all_of(from, to, [value](unsigned char byte) { return byte == value; });
}

}  // namespace

// A run that failed has left what it forbade.
void SimMemory::Reset() {
  if (somethingIsForbidden) AllowHostPages(GetPool(), usedOfPool);
  somethingIsForbidden = false;
  usedOfPool = 0;
}

SimMemory::SimMemory(std::uint64_t size, std::size_t pieces, bool whole) {
  const std::uint64_t unit = whole ? kPage : 1;
  std::uint64_t left = size;
  for (std::size_t k = 0; k < pieces && left > 0; ++k) {
    const std::uint64_t rest = pieces - k;
    std::uint64_t length = rest == 1 ? left : std::max(unit, left / rest / unit * unit);
    length = std::min(length, left);
    const std::size_t skip = whole ? 0 : Simulator::Random(64);
    const std::size_t bytes = (length + skip + kPage - 1) / kPage * kPage;
    if (usedOfPool + bytes + 2 * kPage > kPoolBytes)
      Simulator::Fail("the test's memory is used up");
    unsigned char* const begin = GetPool() + usedOfPool + kPage;
    usedOfPool += bytes + 2 * kPage;
    std::memset(begin - kPage, kGap, bytes + 2 * kPage);
    std::memset(begin + skip, kBefore, length);
    stretches_.push_back({begin, bytes});
    pieces_.emplace_back(begin + skip, length);
    left -= length;
  }
}

SimMemory::~SimMemory() {
  if (!forbidden_) return;
  for (const Stretch& stretch : stretches_) AllowHostPages(stretch.begin, stretch.bytes);
}

std::vector<unsigned char> SimMemory::Gather(std::uint64_t size) const {
  std::vector<unsigned char> data;
  for (const auto& [address, length] : pieces_) {
    const std::uint64_t count = std::min<std::uint64_t>(length, size - data.size());
    data.insert(data.end(), address, address + count);
  }
  return data;
}

void SimMemory::Scatter(const std::vector<unsigned char>& data) const {
  std::size_t done = 0;
  for (const auto& [address, length] : pieces_) {
    std::copy_n(data.begin() + static_cast<std::ptrdiff_t>(done), length, address);
    done += length;
  }
}

bool SimMemory::IsIntactAround() const {
  for (std::size_t k = 0; k < pieces_.size(); ++k) {
    const Stretch& stretch = stretches_[k];
    const auto& [address, length] = pieces_[k];
    if (!IsAll(stretch.begin - kPage, address, kGap) ||
        !IsAll(address + length, stretch.begin + stretch.bytes + kPage, kGap)) {
      return false;
    }
  }
  return true;
}

void SimMemory::LetGo(Afterwards afterwards) {
  letGo_ = true;
  for (const auto& [address, length] : pieces_) std::memset(address, kAfter, length);
  forbidden_ = afterwards == Afterwards::kForbid;
  if (!forbidden_) return;
  somethingIsForbidden = true;
  for (const Stretch& stretch : stretches_) ForbidHostPages(stretch.begin, stretch.bytes);
}

bool SimMemory::IsUntouched() const {
  if (!letGo_) return true;
  if (forbidden_) {
    for (const Stretch& stretch : stretches_) AllowHostPages(stretch.begin, stretch.bytes);
    forbidden_ = false;
  }
  return IsIntactAround() && std::all_of(pieces_.begin(), pieces_.end(), [](const auto& piece) {
           return IsAll(piece.first, piece.first + piece.second, kAfter);
         });
}

}  // namespace Orvane
