#pragma once

#include <cstdint>

#include "CacheTransaction.h"
#include "FileSource.h"

namespace Orvane {

// Completes a transaction with the outcome of the file read that was made for all of it, then drops
// itself.
class TransactionWrapper : public FileSource::ResultCallbackBufferList {
 public:
  TransactionWrapper(CacheTransaction* transaction, FileSource* source);

  // On the thread that completes the I/O.
  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override;

 protected:
  ~TransactionWrapper() override;

 private:
  void CompleteTransaction(CacheSource::Result_t result, std::uint64_t offset, std::uint64_t bytes);

  CacheTransaction* const transaction_;  // one reference each
  FileSource* const source_;
};

}  // namespace Orvane
