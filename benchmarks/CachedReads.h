#pragma once

#include "TestFile.h"

namespace bench {

// Registers reads of `file` through caches: hits against the page cache, misses and a scan against
// the library without a cache. `kind` is the first part of their names.
// REQUIRES: `file` outlives the run.
void RegisterCachedReads(const char* kind, const TestFile& file);

}  // namespace bench
