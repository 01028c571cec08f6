// Address space for a world. One implementation per host folder.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Orvane {

// `size` bytes at `wanted`, or elsewhere if that place is taken. Null if there is no room. Never
// given back. REQUIRES: both are multiples of 64 KiB.
unsigned char* ReserveSimSpace(std::uint64_t wanted, std::size_t size);

// Makes reserved pages usable, all zero. False when memory is short.
bool UseSimSpace(unsigned char* pages, std::size_t size);

}  // namespace Orvane
