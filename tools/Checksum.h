// The running XXH3 64-bit checksum of a byte stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct XXH3_state_s;

namespace OrvaneTool {

class Checksum {
 public:
  // Throws std::bad_alloc.
  Checksum();
  ~Checksum();
  Checksum(const Checksum&) = delete;
  Checksum& operator=(const Checksum&) = delete;

  void Add(const void* bytes, std::size_t count);
  // Of everything added so far.
  std::uint64_t Value() const;

 private:
  XXH3_state_s* const state_;  // owned
};

// 16 lower-case hexadecimal digits, as `xxhsum -H3` prints them.
std::string ChecksumText(std::uint64_t checksum);

}  // namespace OrvaneTool
