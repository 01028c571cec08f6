#include "FileAbstraction/ResultBufferListWrapper.h"

#include "BufferList.h"
#include "Cache.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/FileAbstraction/FileSource";
constexpr const char* kConstructor = "ResultBufferListWrapper::ResultBufferListWrapper";
constexpr const char* kDestructor = "ResultBufferListWrapper::~ResultBufferListWrapper";

}  // namespace

ResultBufferListWrapper::ResultBufferListWrapper(FileSource* source, Cache* cache,
                                                 std::uint64_t offset, BufferList* list,
                                                 FileSource::ResultCallbackBufferList* callback,
                                                 std::uint32_t dueTime)
    : source_(source), cache_(cache), callback_(callback) {
  // First: a construction that fails holds nothing.
  transaction_ = new CacheTransaction(source, offset, list, this, dueTime);
  callback_->AddRef(kFile, kConstructor, 189);
  source_->AddRef(kFile, kConstructor, 190);
  cache_->AddRef(kFile, kConstructor, 191);
}

ResultBufferListWrapper::~ResultBufferListWrapper() {
  cache_->DecRef(kFile, kDestructor, 250);
  source_->DecRef(kFile, kDestructor, 251);
  callback_->DecRef(kFile, kDestructor, 252);
  transaction_->DecRef(kFile, kDestructor, 253);
}

CacheSource::Result_t ResultBufferListWrapper::Initiate() {
  bool isInUse = false;
  // The report may come at once, and give up the last references on the cache.
  SharedObjectAutoRef keepCache(cache_);
  if (cache_->Start(transaction_, &isInUse) == CacheSource::kResultPending) {
    return CacheSource::kResultPending;
  }
  transaction_->Cleanup();
  DecRef(kFile, "ResultBufferListWrapper::Initiate", 229);
  return CacheSource::kResultNotSupported;
}

void ResultBufferListWrapper::InitiateOrReport() {
  bool isInUse = false;
  SharedObjectAutoRef keepCache(cache_);
  const CacheSource::Result_t result = cache_->Start(transaction_, &isInUse);
  if (result == CacheSource::kResultPending) return;
  Callback(result == CacheSource::kResultFailed ? result : CacheSource::kResultError, transaction_,
           0);
}

void ResultBufferListWrapper::Callback(CacheSource::Result_t result, CacheTransaction*,
                                       std::uint64_t bytes) {
  result_ = result;
  bytes_ = bytes;
  cache_->GetReports()->Add(&entry_, source_->GetSourceKey());
  if (!ReportScope::Defer(this)) FinishReport();
}

// A synchronous caller is woken when this scope closes: he finds every reference back.
void ResultBufferListWrapper::FinishReport() {
  ReportScope scope;
  try {
    ReportScope::CallersCode callersCode;
    callback_->Callback(result_, transaction_->GetOffset(), transaction_->GetBufferList(), bytes_);
  } catch (...) {
    MTInterface::DebugString("Unhandled Exception In File Callback\n");
  }
  transaction_->Cleanup();
  cache_->GetReports()->Remove(&entry_);
  DecRef(kFile, "ResultBufferListWrapper::Callback", 244);
}

}  // namespace Orvane
