#include "FileAbstraction/ResidentReadCommand.h"

#include <memory>

#include "BufferList.h"
#include "Cache.h"
#include "Cache/CacheCommands.h"
#include "FileAbstraction/ResultBufferListWrapper.h"
#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/FileAbstraction/FileSource";
constexpr const char* kConstructor = "ResidentReadCommand::ResidentReadCommand";
constexpr const char* kDestructor = "ResidentReadCommand::~ResidentReadCommand";

// Larger ones are cut into blocks, so that others that are due get their turn in between.
constexpr std::uint64_t kMostBytes = std::uint64_t{1} << 20;

}  // namespace

CacheSource::Result_t ResidentReadCommand::Start(FileSource* source, Cache* cache,
                                                 std::uint64_t offset, BufferList* list,
                                                 FileSource::ResultCallbackBufferList* callback,
                                                 std::uint32_t dueTime) {
  const std::uint64_t size = list->GetTotalSizeOfBuffers();
  std::uint32_t number = 0;
  if (size > kMostBytes || !cache->HoldsResident(source, offset, size, &number)) {
    return CacheSource::kResultNone;
  }
  try {
    std::unique_ptr<ResidentReadCommand, FinishUnused> command(
        new ResidentReadCommand(source, cache, offset, list, callback, dueTime, number));
    // It may be reported, and the last reference given up, before this returns.
    SharedObjectAutoRef keepCache(cache);
    cache->QueueCopy(command.get());
    command.release();
    return CacheSource::kResultPending;
  } catch (...) {
    return CacheSource::kResultNone;
  }
}

ResidentReadCommand::ResidentReadCommand(FileSource* source, Cache* cache, std::uint64_t offset,
                                         BufferList* list,
                                         FileSource::ResultCallbackBufferList* callback,
                                         std::uint32_t dueTime, std::uint32_t forgottenNumber)
    : CacheCommand(kCommandDispatchedCopy, dueTime, cache, source),
      source_(source),
      list_(list),
      callback_(callback),
      offset_(offset),
      forgottenNumber_(forgottenNumber) {
  source_->AddRef(kFile, kConstructor, __LINE__);
  list_->AddRef(kFile, kConstructor, __LINE__);
  callback_->AddRef(kFile, kConstructor, __LINE__);
  cache_->AddRef(kFile, kConstructor, __LINE__);
}

ResidentReadCommand::~ResidentReadCommand() {
  ReleaseAll();
}

void ResidentReadCommand::ReleaseList() {
  if (list_) list_->DecRef(kFile, kDestructor, __LINE__);
  list_ = nullptr;
}

void ResidentReadCommand::ReleaseAll() {
  ReleaseList();
  if (!source_) return;
  callback_->DecRef(kFile, kDestructor, __LINE__);
  callback_ = nullptr;
  source_->DecRef(kFile, kDestructor, __LINE__);
  source_ = nullptr;
  cache_->DecRef(kFile, kDestructor, __LINE__);
}

bool ResidentReadCommand::Execute() {
  const std::uint64_t size = list_->GetTotalSizeOfBuffers();
  const bool isThere = cache_->ReadResident(source_, offset_, nullptr, list_, size, GetDueTime());
  if (cache_->WasForgotten(source_, offset_, size, forgottenNumber_)) {
    result_ = CacheSource::kResultFailed;
  } else if (isThere) {
    result_ = CacheSource::kResultOK;
  } else {
    ReadAsMiss();
  }
  return true;
}

// The report is another's then.
void ResidentReadCommand::ReadAsMiss() {
  ResultBufferListWrapper* wrapper = nullptr;
  try {
    wrapper = new ResultBufferListWrapper(source_, cache_, offset_, list_, callback_, GetDueTime());
  } catch (...) {
    result_ = CacheSource::kResultError;
    return;
  }
  // It holds all of them: none is the last, and who hears of its end finds none of these. Its end
  // may come before this returns.
  ReleaseAll();
  result_ = CacheSource::kResultPending;
  wrapper->InitiateOrReport();
}

// Without an outcome it was cancelled; or nobody was told of its start.
void ResidentReadCommand::Finish(bool cancelled) {
  if (cancelled && result_ == CacheSource::kResultNone) result_ = CacheSource::kResultFailed;
  if (result_ == CacheSource::kResultNone || result_ == CacheSource::kResultPending) {
    delete this;
    return;
  }
  cache_->GetReports()->Add(&entry_, source_->GetSourceKey());
  if (!ReportScope::Defer(this)) FinishReport();
}

// Who has cancelled finds his list given back.
void ResidentReadCommand::FinishReport() {
  ReportScope scope;
  try {
    ReportScope::CallersCode callersCode;
    const bool isDone = result_ == CacheSource::kResultOK;
    callback_->Callback(result_, offset_, list_, isDone ? list_->GetTotalSizeOfBuffers() : 0);
  } catch (...) {
    MTInterface::DebugString("Unhandled Exception In File Callback\n");
  }
  ReleaseList();
  cache_->GetReports()->Remove(&entry_);
  delete this;
}

}  // namespace Orvane
