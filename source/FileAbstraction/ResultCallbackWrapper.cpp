#include "FileAbstraction/ResultCallbackWrapper.h"

#include "Buffer.h"
#include "BufferList.h"
#include "OSServices/AtomicValue.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/FileAbstraction/FileSource";
constexpr const char* kConstructor = "ResultCallbackWrapper::ResultCallbackWrapper";
constexpr std::uint32_t kWithoutLimit = 0xFFFFFFFF;

std::uint32_t Encode(CacheSource::Result_t result) {
  return static_cast<std::uint32_t>(result);
}

}  // namespace

ResultCallbackWrapper::ResultCallbackWrapper(Buffer* buffer)
    : semaphore_(MTInterface::NewSemaphore(1, 0)),
      callback_(nullptr),
      result_(MTInterface::NewAtomicUnsigned32(Encode(CacheSource::kResultPending))) {
  if (buffer) MakeList(buffer, 44);
}

ResultCallbackWrapper::ResultCallbackWrapper(FileSource::ResultCallbackBuffer* callback,
                                             Buffer* buffer)
    : callback_(callback),
      result_(MTInterface::NewAtomicUnsigned32(Encode(CacheSource::kResultPending))) {
  MakeList(buffer, 59);
  // Last, so that a failed construction holds nothing.
  if (callback_) callback_->AddRef(kFile, kConstructor, __LINE__);
}

ResultCallbackWrapper::~ResultCallbackWrapper() {
  ReleaseList();
  if (callback_) {
    callback_->DecRef(kFile, "ResultCallbackWrapper::~ResultCallbackWrapper", __LINE__);
  }
}

void ResultCallbackWrapper::Callback(CacheSource::Result_t result, std::uint64_t offset,
                                     BufferList* list, std::uint64_t bytes) {
  const ReportScope::LibrarysCode librarysCode;
  if (result == CacheSource::kResultPending) result = CacheSource::kResultError;
  if (!semaphore_) {
    SharedObjectAutoRef dropAfterwards(this);
    DecRef(kFile, "ResultCallbackWrapper::Callback", 81);
    if (callback_) TellCaller(result, offset, list ? list->GetBuffer(0) : nullptr, bytes);
    return;
  }
  bytes_ = bytes;
  AtomicExchange(result_.get(), Encode(result));
  // The waiter drops the wrapper as soon as he is woken; it stays until the wake-up is over.
  AddRef(kFile, "ResultCallbackWrapper::Callback", __LINE__);
  if (!ReportScope::Defer(this)) FinishReport();
}

void ResultCallbackWrapper::TellCaller(CacheSource::Result_t result, std::uint64_t offset,
                                       Buffer* buffer, std::uint64_t bytes) {
  const ReportScope::CallersCode callersCode;
  try {
    callback_->Callback(result, offset, buffer, bytes);
  } catch (...) {
    MTInterface::DebugString("Unhandled Exception In File Callback\n");
  }
}

void ResultCallbackWrapper::FinishReport() {
  semaphore_->Release(1);
  DecRef(kFile, "ResultCallbackWrapper::FinishReport", __LINE__);
}

CacheSource::Result_t ResultCallbackWrapper::Wait(std::uint64_t* bytes) {
  if (!semaphore_->Wait(kWithoutLimit, 1)) {
    while (GetResult() == CacheSource::kResultPending) MTInterface::Sleep(1);
  }
  const CacheSource::Result_t result = GetResult();
  if (bytes) *bytes = bytes_;
  // Here, not in the destructor: the I/O thread may be the one that destroys the wrapper, later.
  ReleaseList();
  DecRef(kFile, "ResultCallbackWrapper::Wait", 104);
  return result;
}

void ResultCallbackWrapper::MakeList(Buffer* buffer, unsigned long line) {
  list_ = new BufferList(buffer, /*adoptReference=*/true, /*capacity=*/1);
  buffer->AddRef(kFile, kConstructor, line);
}

void ResultCallbackWrapper::ReleaseList() {
  if (list_) list_->DecRef(kFile, "ResultCallbackWrapper::~ResultCallbackWrapper", 117);
  list_ = nullptr;
}

CacheSource::Result_t ResultCallbackWrapper::GetResult() {
  return static_cast<CacheSource::Result_t>(static_cast<std::int32_t>(result_->Get()));
}

}  // namespace Orvane
