// Holds one reference of a shared object of the library.
#pragma once

#include <utility>

namespace OrvaneTool {

template <class T>
class Ref {
 public:
  Ref() = default;
  // Takes over the reference that the caller holds; null is allowed.
  explicit Ref(T* object) noexcept : object_(object) {}
  Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  Ref& operator=(Ref&& other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  Ref(const Ref&) = delete;
  Ref& operator=(const Ref&) = delete;
  ~Ref() {
    if (object_ != nullptr) object_->DecRef("tools/Ref", "OrvaneTool::Ref::~Ref", __LINE__);
  }

  T* get() const { return object_; }
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }
  explicit operator bool() const { return object_ != nullptr; }

 private:
  T* object_ = nullptr;
};

}  // namespace OrvaneTool
