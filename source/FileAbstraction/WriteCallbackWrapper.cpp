#include "FileAbstraction/WriteCallbackWrapper.h"

#include "BufferList.h"
#include "Cache.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/FileAbstraction/FileSource";
constexpr const char* kConstructor = "WriteCallbackWrapper::WriteCallbackWrapper";
constexpr const char* kCallback = "WriteCallbackWrapper::Callback";
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
  const ReportScope::LibrarysCode librarysCode;
  cache_->InvalidateWritten(source_, offset_, size_);
  result_ = result;
  reportedOffset_ = offset;
  bytes_ = bytes;
  list_ = list;
  if (list_) list_->AddRef(kFile, kCallback, __LINE__);
  cache_->GetReports()->Add(&entry_, source_->GetSourceKey());
  if (!ReportScope::Defer(this)) FinishReport();
}

// A synchronous caller is woken when this scope closes: he finds every reference back.
void WriteCallbackWrapper::FinishReport() {
  ReportScope scope;
  if (callback_) {
    const ReportScope::CallersCode callersCode;
    try {
      callback_->Callback(result_, reportedOffset_, list_, bytes_);
    } catch (...) {
      MTInterface::DebugString("Unhandled Exception In File Callback\n");
    }
  }
  cache_->GetReports()->Remove(&entry_);
  if (list_) list_->DecRef(kFile, kCallback, __LINE__);
  DecRef(kFile, kCallback, __LINE__);
}

void WriteCallbackWrapper::Abandon() {
  cache_->InvalidateWritten(source_, offset_, size_);
  DecRef(kFile, "WriteCallbackWrapper::Abandon", __LINE__);
}

}  // namespace Orvane
