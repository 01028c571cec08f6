// Plays a file at a steady rate, with pre-reads ahead: each says when its data will be wanted, so
// that the cache has it in time and reads what is due first.
#include <algorithm>
#include <cstdint>
#include <iostream>

#include "Orvane.h"

namespace {

using Orvane::Cache;
using Orvane::CacheSource;
using Orvane::MTInterface;
using Orvane::NativeFileSource;

constexpr std::uint64_t kBlockBytes = 64 * 1024;
constexpr std::uint64_t kFrameBytes = 25000;              // shown at a time
constexpr std::uint64_t kFrameMs = 1;                     // so long
constexpr std::uint64_t kWindowBytes = 32 * kBlockBytes;  // ahead of what is shown

// The moment at which the byte at `offset` is wanted.
std::uint32_t DueTime(std::uint32_t start, std::uint64_t offset) {
  const auto due = static_cast<std::uint32_t>(start + offset / kFrameBytes * kFrameMs);
  return due == Cache::kDueASAP ? due + 1 : due;
}

// Reads the whole file, frame by frame; the bytes that came.
std::uint64_t Play(NativeFileSource* file) {
  auto* frame = new Orvane::HeapBuffer(kFrameBytes);
  const std::uint32_t start = MTInterface::GetCurrentTimeMilli();
  std::uint64_t ahead = 0;
  std::uint64_t total = 0;
  CacheSource::Result_t result = CacheSource::kResultNone;
  do {
    for (; ahead < total + kWindowBytes; ahead += kBlockBytes) {
      file->PreRead(ahead, kBlockBytes, DueTime(start, ahead), Orvane::MTThread::kPriorityNormal);
    }
    std::uint64_t bytes = 0;
    result = file->Read(total, frame, &bytes);
    if (result > 0) total += bytes;
    const auto early =
        static_cast<std::int32_t>(DueTime(start, total) - MTInterface::GetCurrentTimeMilli());
    MTInterface::Sleep(static_cast<std::uint32_t>(std::max(early, 0)));
  } while (result == CacheSource::kResultOK);
  frame->DecRef(__FILE__, __func__, __LINE__);
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  Orvane::OSServices::Init();
  auto* factory = new Orvane::BufferFactoryPhysMem;
  factory->Initialize(kBlockBytes, /*minimumBuffers=*/128, /*desiredBuffers=*/128, /*reserved=*/0);
  auto* cache = new Cache(factory);
  cache->CollectCacheStats(true);
  auto* file = Orvane::NativeFileSysInterface::NewNativeFileSource(argv[1]);
  file->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false);
  file->UseCache(cache);

  const std::uint64_t total = Play(file);
  std::cout << total << " bytes, " << cache->GetCachePreReads() << " blocks read ahead, "
            << cache->GetCacheMisses() << " missed\n";

  file->DecRef(__FILE__, __func__, __LINE__);
  cache->DecRef(__FILE__, __func__, __LINE__);
  factory->DecRef(__FILE__, __func__, __LINE__);
  return total > 0 ? 0 : 1;
}
