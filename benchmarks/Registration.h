// What all benchmarks that read a file have in common.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Reader.h"

namespace bench {

using ReaderFactory = std::unique_ptr<Reader> (*)(const Job&);

// Has `newReader` make a reader, read what is in `warmUp`, and then, for every iteration, all of
// `offsets`. With no warm-up, the first few of them.
void RegisterReads(const std::string& name, const Job& job, std::vector<std::uint64_t> offsets,
                   ReaderFactory newReader, std::vector<std::uint64_t> warmUp = {});

// Tells the reporter that an iteration did so many items.
void CountItems(benchmark::State* state, std::size_t itemsPerIteration, const char* rateName);

}  // namespace bench
