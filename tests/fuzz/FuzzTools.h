// What the fuzz targets have in common: values out of an input, a check, and a leak check.
//
// A target is one source file with LLVMFuzzerTestOneInput. It does to a class and to a small model
// of it whatever the input says, and compares. What a run does depends on its input alone, so that
// every failure can be repeated.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments);

namespace Orvane::Fuzz {

// Prints a line "not ok ..." and aborts.
[[noreturn]] void FailCheck(const char* file, int line, const char* text);

// As assert, in every kind of build.
#define ORVANE_FUZZ_CHECK(condition)                                             \
  do {                                                                           \
    if (!(condition)) ::Orvane::Fuzz::FailCheck(__FILE__, __LINE__, #condition); \
  } while (false)

// Takes values from the front of an input; zeros behind its end.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : next_(data), end_(data + size) {}

  bool IsEmpty() const { return next_ == end_; }
  std::uint8_t Byte() { return IsEmpty() ? std::uint8_t{0} : *next_++; }
  bool Flag() { return (Byte() & 1) != 0; }
  // REQUIRES: 0 < limit <= 256.
  unsigned Below(unsigned limit) { return Byte() % limit; }
  // Any number, most of them near an edge: small, near a power of two, or near the largest.
  std::uint64_t Number() {
    const unsigned kind = Byte();
    const std::uint64_t low = Byte();
    switch (kind & 3) {
      case 0:
        return low;
      case 1:
        return ~low;
      case 2:
        return (std::uint64_t{1} << (kind >> 2)) + low - 128;
      default:
        break;
    }
    std::uint64_t number = low;
    for (int i = 0; i < 7; ++i) number = number << 8 | Byte();
    return number;
  }

 private:
  const std::uint8_t* next_;
  const std::uint8_t* end_;
};

// Locks and counters that exist, and with them shared objects.
long CountLivePrimitives();

// Fails when its block leaves locks or counters behind.
class LeakCheck {
 public:
  LeakCheck() : before_(CountLivePrimitives()) {}
  ~LeakCheck() { ORVANE_FUZZ_CHECK(CountLivePrimitives() == before_); }
  LeakCheck(const LeakCheck&) = delete;
  LeakCheck& operator=(const LeakCheck&) = delete;

 private:
  const long before_;
};

// Bytes per page, as the library is told in these programs: small, so that the memory of a run is
// small too.
constexpr std::size_t kPageSize = 16;

}  // namespace Orvane::Fuzz
