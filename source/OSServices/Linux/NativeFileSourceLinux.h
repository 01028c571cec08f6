#pragma once

#include "OSServices/NativeFileSourceAsync.h"

namespace Orvane {

// Files of Linux. Differences from the other host: a transfer at an offset that the device cannot
// address fails there at once and here through its completion; both are reported alike.
class NativeFileSourceLinux : public NativeFileSourceAsync {
 public:
  NativeFileSourceLinux(const char* name, AsyncHandler* handler);

 protected:
  ~NativeFileSourceLinux() override;

  HostFile* OpenHostFile(const char* name, bool forRead, bool forWrite, bool create) override;
  bool DeleteHostFile(const char* name) override;
};

}  // namespace Orvane
