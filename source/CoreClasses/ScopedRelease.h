#pragma once

#include "SharedObject.h"

namespace Orvane {

// Owns one reference for the length of a block and releases it from the given call site, unless it
// was handed on with Take.
template <typename Object>
class ScopedRelease {
 public:
  ScopedRelease(Object* object, const char* file, const char* function, unsigned long line)
      : object_(object), file_(file), function_(function), line_(line) {}
  ~ScopedRelease() {
    if (object_) object_->DecRef(file_, function_, line_);
  }
  ScopedRelease(const ScopedRelease&) = delete;
  ScopedRelease& operator=(const ScopedRelease&) = delete;

  Object* Get() const { return object_; }
  Object* Take() {
    Object* const object = object_;
    object_ = nullptr;
    return object;
  }

 private:
  Object* object_;
  const char* const file_;
  const char* const function_;
  const unsigned long line_;
};

}  // namespace Orvane
