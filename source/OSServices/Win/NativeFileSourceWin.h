#pragma once

#include "OSServices/NativeFileSourceAsync.h"

namespace Orvane {

// Files of Windows. Differences from the other host: a transfer at an offset that the device cannot
// address fails here at once and there through its completion; both are reported alike.
class NativeFileSourceWin : public NativeFileSourceAsync {
 public:
  NativeFileSourceWin(const char* name, AsyncHandler* handler);

 protected:
  ~NativeFileSourceWin() override;

  HostFile* OpenHostFile(const char* name, bool forRead, bool forWrite, bool create) override;
  bool DeleteHostFile(const char* name) override;
};

}  // namespace Orvane
