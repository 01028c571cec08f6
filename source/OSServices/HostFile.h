// An open file of the host, counted, so that requests keep it open.
#pragma once

#include "SharedObject.h"

namespace Orvane {

// Made by a file source's Open, which holds the first reference; every request holds another. The
// host's handle is closed by the last release. A file that could not be opened is represented
// too: every transfer on it fails. Requests are cancelled by this object, never by the handle, so
// that two failed opens, or a handle number used again, cannot be mistaken for one another.
class HostFile : public SharedObject {
 public:
  // True if transfers must start on page boundaries.
  virtual bool IsUnbuffered() const { return true; }

 protected:
  HostFile() = default;

 private:
  friend class AsyncHandler;
  bool closing_ = false;  // guarded by AsyncHandler's slot lock; set once: no new requests
};

}  // namespace Orvane
