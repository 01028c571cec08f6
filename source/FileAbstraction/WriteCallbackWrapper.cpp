#include "FileAbstraction/WriteCallbackWrapper.h"

#include "Cache.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/FileAbstraction/FileSource";
constexpr const char* kConstructor = "WriteCallbackWrapper::WriteCallbackWrapper";
constexpr const char* kDestructor = "WriteCallbackWrapper::~WriteCallbackWrapper";

}  // namespace

WriteCallbackWrapper::WriteCallbackWrapper(FileSource* source, Cache* cache, std::uint64_t offset,
                                           std::uint64_t size,
                                           FileSource::ResultCallbackBufferList* callback)
    : source_(source), cache_(cache), callback_(callback), offset_(offset), size_(size) {
  source_->AddRef(kFile, kConstructor, __LINE__);
  cache_->AddRef(kFile, kConstructor, __LINE__);
  if (callback_) callback_->AddRef(kFile, kConstructor, __LINE__);
}

WriteCallbackWrapper::~WriteCallbackWrapper() {
  cache_->DecRef(kFile, kDestructor, __LINE__);
  source_->DecRef(kFile, kDestructor, __LINE__);
  if (callback_) callback_->DecRef(kFile, kDestructor, __LINE__);
}

void WriteCallbackWrapper::Callback(CacheSource::Result_t result, std::uint64_t offset,
                                    BufferList* list, std::uint64_t bytes) {
  cache_->InvalidateWritten(source_, offset_, size_);
  if (callback_) {
    try {
      callback_->Callback(result, offset, list, bytes);
    } catch (...) {
      MTInterface::DebugString("Unhandled Exception In File Callback\n");
    }
  }
  DecRef(kFile, "WriteCallbackWrapper::Callback", __LINE__);
}

void WriteCallbackWrapper::Abandon() {
  cache_->InvalidateWritten(source_, offset_, size_);
  DecRef(kFile, "WriteCallbackWrapper::Abandon", __LINE__);
}

}  // namespace Orvane
