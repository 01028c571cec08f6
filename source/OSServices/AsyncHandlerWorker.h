#pragma once

#include "OSServices/AsyncHandler.h"

namespace Orvane {

// The body of the I/O thread.
class AsyncHandler::Worker : public MTThreadBody {
 public:
  explicit Worker(AsyncHandler* handler) : handler_(handler) {}

 protected:
  void TerminateBody() override {
    handler_->RaiseControl(kStop);
    handler_->WakeWorker();
  }
  void ThreadMain(MTThread*) override { handler_->WorkerMain(); }

 private:
  AsyncHandler* const handler_;
};

}  // namespace Orvane
