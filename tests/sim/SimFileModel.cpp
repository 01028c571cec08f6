#include "SimFileModel.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "OrvaneSimulator.h"

namespace Orvane {
namespace {

constexpr unsigned kVersionShift = 36;
constexpr unsigned kNumberShift = 58;
constexpr std::uint64_t kWord = 8;

}  // namespace

SimFileModel::SimFileModel(std::string name, std::uint32_t number, std::uint64_t bytes)
    : name_(std::move(name)), number_(number) {
  versions_.push_back({0, bytes, 0, 0});
  std::vector<unsigned char> content(bytes);
  Fill(content.data(), bytes, 0, 1);
  SimulatedFiles::Create(name_, std::move(content));
}

std::uint64_t SimFileModel::BeginWrite(std::uint64_t offset, std::uint64_t size, SimTime now) {
  versions_.push_back({offset, size, now});
  return versions_.size();
}

void SimFileModel::EndWrite(std::uint64_t version, SimTime now, bool good) {
  if (good) versions_[version - 1].end = now;
}

// The position in words fits below the version, the version below the number of the file.
std::uint64_t SimFileModel::WordOf(std::uint64_t position, std::uint64_t version) const {
  if (version == 0) return 0;
  return (number_ + 1) << kNumberShift | version << kVersionShift | position / kWord;
}

void SimFileModel::Fill(unsigned char* data, std::uint64_t size, std::uint64_t offset,
                        std::uint64_t version) const {
  for (std::uint64_t done = 0; done < size;) {
    const std::uint64_t skip = (offset + done) % kWord;
    const std::uint64_t count = std::min(kWord - skip, size - done);
    const std::uint64_t word = WordOf(offset + done - skip, version);
    std::memcpy(data + done, reinterpret_cast<const unsigned char*>(&word) + skip, count);
    done += count;
  }
}

std::string SimFileModel::Check(const unsigned char* data, std::uint64_t size, std::uint64_t offset,
                                SimTime begin, SimTime end) const {
  for (std::uint64_t done = 0; done < size;) {
    const std::uint64_t skip = (offset + done) % kWord;
    const std::uint64_t count = std::min(kWord - skip, size - done);
    const std::uint64_t position = offset + done - skip;
    if (!PieceMayShow(data + done, position, skip, count, begin, end) &&
        !TornPieceMayShow(data + done, position, skip, count, begin, end)) {
      std::uint64_t word = 0;
      std::memcpy(&word, data + done, count);
      return "wrong bytes at " + std::to_string(offset + done) + " of " + name_ + ": file " +
             std::to_string((word >> kNumberShift) - 1) + ", version " +
             std::to_string((word >> kVersionShift) & 0x3FFFFF) + ", position " +
             std::to_string((word & ((std::uint64_t{1} << kVersionShift) - 1)) * kWord) +
             "; the read went on from step " + std::to_string(begin) + " to " + std::to_string(end);
    }
    done += count;
  }
  return std::string();
}

bool SimFileModel::PieceMayShow(const unsigned char* data, std::uint64_t position,
                                std::uint64_t skip, std::uint64_t count, SimTime begin,
                                SimTime end) const {
  for (std::uint64_t version = versions_.size() + 1; version-- > 0;) {
    const std::uint64_t word = WordOf(position, version);
    if (std::memcmp(data, reinterpret_cast<const unsigned char*>(&word) + skip, count) == 0 &&
        MayShow(version, position + skip, begin, end)) {
      return true;
    }
  }
  return false;
}

// A write under way, or one that was cut, ends anywhere in a word; the rest of it is older.
bool SimFileModel::TornPieceMayShow(const unsigned char* data, std::uint64_t position,
                                    std::uint64_t skip, std::uint64_t count, SimTime begin,
                                    SimTime end) const {
  for (std::uint64_t cut = 1; cut < count; ++cut) {
    if (PieceMayShow(data, position, skip, cut, begin, end) &&
        PieceMayShow(data + cut, position, skip + cut, count - cut, begin, end)) {
      return true;
    }
  }
  return false;
}

// A write shows from its beginning on, until another one that began after its end has ended.
bool SimFileModel::MayShow(std::uint64_t version, std::uint64_t position, SimTime begin,
                           SimTime end) const {
  const auto covers = [position](const Version& write) {
    return position >= write.offset && position - write.offset < write.size;
  };
  SimTime wasThere = 0;  // what nobody wrote is there from the start
  if (version != 0) {
    const Version& write = versions_[version - 1];
    if (!covers(write) || write.begin > end) return false;
    wasThere = write.end;
  }
  return std::none_of(versions_.begin(), versions_.end(), [&](const Version& later) {
    return covers(later) && later.end != kSimTimeOpen && later.end < begin &&
           (version == 0 || later.begin > wasThere);
  });
}

std::uint64_t SimFileModel::LeastEnd(SimTime begin) const {
  std::uint64_t least = 0;
  for (const Version& write : versions_) {
    if (write.end != kSimTimeOpen && write.end <= begin) {
      least = std::max(least, write.offset + write.size);
    }
  }
  return least;
}

std::uint64_t SimFileModel::MostEnd(SimTime end) const {
  std::uint64_t most = 0;
  for (const Version& write : versions_) {
    if (write.begin <= end) most = std::max(most, write.offset + write.size);
  }
  return most;
}

std::string SimFileModel::CheckDisk() const {
  if (isDeleted_) return SimulatedFiles::Exists(name_) ? name_ + " is there again" : std::string();
  const std::vector<unsigned char> content = SimulatedFiles::Read(name_);
  const SimTime now = Simulator::GetStep();
  if (content.size() < LeastEnd(now) || content.size() > MostEnd(now)) {
    return name_ + " has " + std::to_string(content.size()) + " bytes at the end";
  }
  return Check(content.data(), content.size(), 0, now, now);
}

}  // namespace Orvane
