#pragma once

#include "TestFile.h"

namespace bench {

// Registers the uncached reads of `file` under the name of its kind, "device" or "memory".
// REQUIRES: `file` outlives the run.
void RegisterUncachedReads(const char* kind, const TestFile& file);

}  // namespace bench
