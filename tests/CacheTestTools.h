// Requests whose reports run code of the test, and sources and buffers that call back into it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "CacheFixture.h"

namespace Orvane {

// Ends the process if the calling thread holds a lock of the library.
void AssertNoLockIsHeld();

// Keeps reports, and runs a function of the test inside each, before it is kept.
class HookedRecorder : public ReportRecorder {
 public:
  void OnReport(std::function<void(const Report&)> hook) { hook_ = std::move(hook); }
  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override;

 protected:
  ~HookedRecorder() override = default;

 private:
  std::function<void(const Report&)> hook_;
};

class HookedStatus : public StatusRecorder {
 public:
  void OnReport(std::function<void(CacheTransaction*)> hook) { hook_ = std::move(hook); }
  void Callback(CacheSource::Result_t result, CacheTransaction* transaction,
                std::uint64_t bytes) override;

 protected:
  ~HookedStatus() override = default;

 private:
  std::function<void(CacheTransaction*)> hook_;
};

// One asynchronous read or write of a file source, with its memory. The source must have let go of
// it before it is destroyed.
class AsyncRequest {
 public:
  explicit AsyncRequest(std::size_t size) : target_(size), recorder_(new HookedRecorder) {}

  CacheSource::Result_t Read(FileSource* source, std::uint64_t offset,
                             std::uint32_t dueTime = CacheSource::kDueASAP);
  CacheSource::Result_t Write(FileSource* source, std::uint64_t offset);
  // Before the start.
  void OnReport(std::function<void(const Report&)> hook) { recorder_->OnReport(std::move(hook)); }
  Report GetReport() { return recorder_->GetOne(); }
  bool IsReported() { return !recorder_->GetReports().empty(); }
  std::size_t GetReportCount() { return recorder_->GetReports().size(); }
  std::string GetBytes(std::size_t count) { return target_.GetBytes(count); }
  Target& GetTarget() { return target_; }
  long GetCallbackReferences() { return recorder_->GetRefCount(); }

 private:
  Target target_;
  AutoRelease<HookedRecorder> recorder_;
};

// One read by transaction, past any file source.
class TransactionRequest {
 public:
  explicit TransactionRequest(std::size_t size)
      : target_(size), status_(new HookedStatus), transaction_(new CacheTransaction) {}
  ~TransactionRequest() { transaction_->Cleanup(); }
  TransactionRequest(const TransactionRequest&) = delete;
  TransactionRequest& operator=(const TransactionRequest&) = delete;

  bool Setup(CacheSource* source, std::uint64_t offset,
             std::uint32_t dueTime = CacheSource::kDueASAP);
  // Setup and Cache::Read.
  CacheSource::Result_t Read(Cache* cache, CacheSource* source, std::uint64_t offset,
                             std::uint32_t dueTime = CacheSource::kDueASAP);
  void OnReport(std::function<void(CacheTransaction*)> hook) { status_->OnReport(std::move(hook)); }
  Report GetReport() { return status_->GetOne(); }
  std::vector<Report> GetReports() { return status_->GetReports(); }
  bool WaitForReports(std::size_t count) { return status_->WaitFor(count); }
  bool IsReported() { return !status_->GetReports().empty(); }
  std::string GetBytes(std::size_t count) { return target_.GetBytes(count); }
  Target& GetTarget() { return target_; }
  CacheTransaction* GetTransaction() { return transaction_; }
  StatusRecorder* GetStatus() { return status_; }

 private:
  Target target_;
  AutoRelease<HookedStatus> status_;
  AutoRelease<CacheTransaction> transaction_;
};

// A source in memory whose questions and cancels run code of the test.
class HookedSource : public MemorySource {
 public:
  using Hook = std::function<void()>;
  using MemorySource::MemorySource;

  // On the read thread, once for each try to read what a request misses.
  void OnGather(Hook hook) { Set(&onGather_, std::move(hook)); }
  // Before each cancel.
  void OnCancel(Hook hook) { Set(&onCancel_, std::move(hook)); }
  // On the read thread, for each pre-read that is not served from memory.
  void OnPreRead(Hook hook) { Set(&onPreRead_, std::move(hook)); }
  std::size_t GetTries() const { return tries_; }

  bool CanGatherReads() override;
  void CancelNonCached() override;
  bool SupportsPreReads() override;

 protected:
  ~HookedSource() override = default;

 private:
  void Set(Hook* place, Hook hook);
  void Run(const Hook& place);

  std::mutex hookMutex_;
  Hook onGather_;
  Hook onCancel_;
  Hook onPreRead_;
  std::atomic<std::size_t> tries_{0};
};

// Memory to read into that runs code of the test while it is copied into or unlocked.
class HookedBuffer : public HeapBuffer {
 public:
  using HeapBuffer::HeapBuffer;

  // Before each copy, on the thread that copies. Before the buffer is in use.
  void OnCopyInto(std::function<void()> hook) { onCopyInto_ = std::move(hook); }
  void OnUnlock(std::function<void()> hook) { onUnlock_ = std::move(hook); }
  void RefuseLocks(bool refuse) { refusesLocks_ = refuse; }

  LockState_t Lock() override;
  LockState_t Unlock() override;
  BufferResult_t CopyInto(void* source, std::size_t count, std::size_t offset,
                          std::size_t* bytesMoved) override;

 protected:
  ~HookedBuffer() override = default;

 private:
  std::function<void()> onCopyInto_;
  std::function<void()> onUnlock_;
  std::atomic<bool> refusesLocks_{false};
};

// Adds what tests of whole caches share.
class CacheToolsFixture : public CacheFixture {
 protected:
  // Replaces the cache; the factory stays the caller's.
  Cache* MakeCacheOver(BufferFactory* factory);
  // A source on the cache, released by TearDown.
  HookedSource* MakeHookedSource(const std::string& contents);
  // The same without a cache.
  HookedSource* MakeUnattachedSource(const std::string& contents);
  // Gives the reference of a source that MakeSource made to the caller.
  void Disown(MemorySource* source);
};

// A factory of heap buffers, initialised.
BufferFactoryHeap* NewHeapFactory(std::size_t buffers, std::size_t size);

}  // namespace Orvane
