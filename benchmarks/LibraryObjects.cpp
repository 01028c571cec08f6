#include "LibraryObjects.h"

#include <new>
#include <stdexcept>

#include "RandomContent.h"

namespace bench {
namespace {

void Load(Orvane::NativeFileSource* source, std::uint64_t bytes) {
  constexpr std::uint64_t kStep = std::uint64_t{1} << 20;
  Blocks memory(kStep, 1, 1);
  Orvane::BufferList* const list = memory.NewList();
  bool good = true;
  for (std::uint64_t at = 0; at < bytes; at += kStep) {
    good = good && source->ReadWithList(at, list, nullptr) == Orvane::CacheSource::kResultOK;
  }
  Drop(list);
  if (!good) throw std::runtime_error("cannot load the cache");
}

}  // namespace

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

Orvane::NativeFileSource* OpenSource(const CachedJob& job) {
  Orvane::NativeFileSource* const source =
      Orvane::NativeFileSysInterface::NewNativeFileSource(job.file.c_str());
  if (job.cache.blocks > 0) {
    Orvane::Cache* const cache = NewCache(job.cache);
    source->UseCache(cache);
    Drop(cache);
  }
  source->Open(/*forRead=*/true, /*forWrite=*/job.write, /*create=*/false);
  try {
    Load(source, job.loadedBytes);
  } catch (...) {
    Drop(source);
    throw;
  }
  return source;
}

Blocks::Blocks(std::uint64_t bytes, std::size_t count, unsigned parts)
    : parts_(parts), factory_(new Orvane::BufferFactoryPhysMem), content_(NewContent()) {
  // With parts every other buffer is left out.
  const std::uint64_t buffers = parts == 1 ? count : std::uint64_t{2} * count * parts;
  if (!factory_->Initialize(bytes / parts, buffers, buffers, 0)) throw std::bad_alloc();
}

Blocks::~Blocks() {
  Drop(factory_);
}

Orvane::BufferList* Blocks::NewList() {
  auto* const list = new Orvane::BufferList(factory_->GetBufferFromFactory(),
                                            /*adoptReference=*/true, /*capacity=*/parts_);
  for (unsigned part = 1; part < parts_; ++part) {
    // Not given back: nobody is to get it.
    Drop(factory_->GetBufferFromFactory());
    list->AddBuffer(factory_->GetBufferFromFactory(), /*adoptReference=*/true);
  }
  return list;
}

Orvane::BufferList* Blocks::NewFilledList() {
  Orvane::BufferList* const list = NewList();
  for (std::size_t k = 0; k < list->GetNumberOfBuffers(); ++k) {
    Orvane::Buffer* const buffer = list->GetBuffer(k);
    const Orvane::BufferLockAuto lock(buffer);
    FillWithRandom(buffer->GetVirtualAddress(), buffer->GetSize(), &content_);
  }
  return list;
}

}  // namespace bench
