// What a simulated file may show to a read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Orvane {

// Steps of the simulation.
using SimTime = std::uint64_t;
constexpr SimTime kSimTimeOpen = ~SimTime{0};

// A file whose every 8 bytes tell which file and position they belong to and which write they are
// of. Versions count the writes, 1 is what the file held at first, and zeros are what nobody wrote.
// Knows when each write began and ended, so it can tell what a read that went on from one step to
// another may have met.
class SimFileModel {
 public:
  static constexpr std::uint64_t kPage = 4096;

  // Creates the simulated file, of `bytes` bytes, a multiple of 8, of version 1.
  SimFileModel(std::string name, std::uint32_t number, std::uint64_t bytes);

  const std::string& Name() const { return name_; }

  // A write of whole pages. Answers its version.
  std::uint64_t BeginWrite(std::uint64_t offset, std::uint64_t size, SimTime now);
  // `good`: nothing older shows from now on. Otherwise it may show, in part, for ever.
  void EndWrite(std::uint64_t version, SimTime now, bool good);
  void Fill(unsigned char* data, std::uint64_t size, std::uint64_t offset,
            std::uint64_t version) const;

  // Empty if a read from `begin` to `end` may have met these bytes at `offset`, else what is wrong.
  std::string Check(const unsigned char* data, std::uint64_t size, std::uint64_t offset,
                    SimTime begin, SimTime end) const;
  // The least and the most that the file ended at in that time.
  std::uint64_t LeastEnd(SimTime begin) const;
  std::uint64_t MostEnd(SimTime end) const;
  // The file has been deleted: whoever had it open goes on with what it held.
  void Delete() { isDeleted_ = true; }
  bool IsDeleted() const { return isDeleted_; }
  // Empty if the simulated file agrees with the model. REQUIRES: nothing writes.
  std::string CheckDisk() const;

 private:
  struct Version {
    std::uint64_t offset;
    std::uint64_t size;
    SimTime begin;
    SimTime end = kSimTimeOpen;  // of one that went well
  };

  std::uint64_t WordOf(std::uint64_t position, std::uint64_t version) const;
  bool MayShow(std::uint64_t version, std::uint64_t position, SimTime begin, SimTime end) const;
  bool PieceMayShow(const unsigned char* data, std::uint64_t position, std::uint64_t skip,
                    std::uint64_t count, SimTime begin, SimTime end) const;
  bool TornPieceMayShow(const unsigned char* data, std::uint64_t position, std::uint64_t skip,
                        std::uint64_t count, SimTime begin, SimTime end) const;

  const std::string name_;
  const std::uint64_t number_;
  std::vector<Version> versions_;  // [0] is version 1
  bool isDeleted_ = false;
};

}  // namespace Orvane
