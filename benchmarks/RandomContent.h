#pragma once

#include <cstddef>
#include <random>

namespace bench {

// Fills whole words of the memory with what comes next.
void FillWithRandom(void* memory, std::size_t bytes, std::mt19937_64* random);

// Where the content of everything that is written begins, so that it is the same for everybody.
std::mt19937_64 NewContent();

}  // namespace bench
