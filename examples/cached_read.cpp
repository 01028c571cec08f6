// Reads a file twice through a cache, in pieces of any size: first from the file, then from memory.
// The second program of the README.
#include <cstdint>
#include <iostream>

#include "Orvane.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  Orvane::OSServices::Init();
  auto* factory = new Orvane::BufferFactoryPhysMem;
  factory->Initialize(/*bufferSize=*/64 * 1024, /*minimumBuffers=*/256, /*desiredBuffers=*/256, 0);
  auto* cache = new Orvane::Cache(factory);
  cache->CollectCacheStats(true);

  auto* file = Orvane::NativeFileSysInterface::NewNativeFileSource(argv[1]);
  file->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false);
  file->UseCache(cache);                        // once, before the first read
  auto* piece = new Orvane::HeapBuffer(10000);  // no alignment needed

  auto result = Orvane::CacheSource::kResultNone;
  for (const char* pass : {"cold", "warm"}) {
    cache->ResetCacheStats();
    std::uint64_t total = 0;
    std::uint64_t bytes = 0;
    while ((result = file->Read(total, piece, &bytes)) > 0) total += bytes;
    std::cout << pass << ": " << total << " bytes, " << cache->GetCacheMisses()
              << " blocks missed\n";
  }

  piece->DecRef(__FILE__, __func__, __LINE__);
  file->DecRef(__FILE__, __func__, __LINE__);
  cache->DecRef(__FILE__, __func__, __LINE__);
  factory->DecRef(__FILE__, __func__, __LINE__);
  return result == Orvane::CacheSource::kResultOutOfRange ? 0 : 1;  // the end of the file
}
