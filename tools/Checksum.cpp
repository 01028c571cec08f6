#include "Checksum.h"

#include <fmt/format.h>
#include <xxhash.h>

#include <new>

namespace OrvaneTool {

Checksum::Checksum() : state_(XXH3_createState()) {
  if (state_ == nullptr) throw std::bad_alloc();
  XXH3_64bits_reset(state_);
}

Checksum::~Checksum() {
  XXH3_freeState(state_);
}

void Checksum::Add(const void* bytes, std::size_t count) {
  XXH3_64bits_update(state_, bytes, count);
}

std::uint64_t Checksum::Value() const {
  return XXH3_64bits_digest(state_);
}

std::string ChecksumText(std::uint64_t checksum) {
  return fmt::format("{:016x}", checksum);
}

}  // namespace OrvaneTool
