#include "LibraryObjects.h"

#include <new>

namespace bench {

void Drop(Orvane::SharedObject* object) {
  if (object) object->DecRef("benchmarks/LibraryObjects", "Drop", __LINE__);
}

Orvane::Cache* NewCache(const CacheShape& shape) {
  auto* const factory = new Orvane::BufferFactoryPhysMem;
  Orvane::Cache* cache = nullptr;
  if (factory->Initialize(shape.blockBytes, shape.blocks, shape.blocks, 0)) {
    cache = new Orvane::Cache(factory);
  }
  Drop(factory);
  if (!cache) throw std::bad_alloc();
  return cache;
}

Orvane::NativeFileSource* OpenSource(const Job& job) {
  Orvane::NativeFileSource* const source =
      Orvane::NativeFileSysInterface::NewNativeFileSource(job.file.c_str());
  if (job.cache.blocks > 0) {
    Orvane::Cache* const cache = NewCache(job.cache);
    source->UseCache(cache);
    Drop(cache);
  }
  source->Open(/*forRead=*/true, /*forWrite=*/false, /*create=*/false);
  return source;
}

Blocks::Blocks(std::uint64_t blockBytes, std::size_t count)
    : factory_(new Orvane::BufferFactoryPhysMem) {
  if (!factory_->Initialize(blockBytes, count, count, 0)) throw std::bad_alloc();
}

Blocks::~Blocks() {
  Drop(factory_);
}

Orvane::BufferList* Blocks::NewListOfOne() {
  return new Orvane::BufferList(factory_->GetBufferFromFactory(), /*adoptReference=*/true,
                                /*capacity=*/1);
}

}  // namespace bench
