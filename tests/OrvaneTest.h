// The fixture of every test, and a small vocabulary.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>
#include <vector>

#include "AllocationCounter.h"
#include "MTPrimitives.h"
#include "TestMTInterface.h"

namespace Orvane {

// Fails a test that leaves locks, semaphores or counters behind, and with them threads and shared
// objects. Waits up to 5 seconds for those that go asynchronously. Derived fixtures release what
// they hold in their TearDown, before they call this one.
class OrvaneTest : public ::testing::Test {
 public:
  // The directory for the files of the tests.
  static const std::string& Directory();
  static void SetDirectory(const std::string& directory);
  // A path in that directory, different for every process that runs the tests.
  static std::string PathOf(const std::string& name);

  // Has a function run before the library is initialised, for facts about that time.
  // Answers true, so that it can initialise a constant.
  static bool RunBeforeInit(void (*function)());
  static void RunAllBeforeInit();

 protected:
  OrvaneTest();
  void TearDown() override;

 private:
  const LiveCounts before_;  // taken before the members of derived fixtures are made
};

// Owns one reference of a shared object.
template <typename Object>
class AutoRelease {
 public:
  explicit AutoRelease(Object* object) : object_(object) {}
  ~AutoRelease() { Release(); }
  AutoRelease(const AutoRelease&) = delete;
  AutoRelease& operator=(const AutoRelease&) = delete;

  Object* Get() const { return object_; }
  Object* operator->() const { return object_; }
  operator Object*() const { return object_; }  // NOLINT: reads as the pointer it stands for

  // Gives the reference up now; answers the new count.
  long Release() {
    Object* const object = Take();
    return object ? object->DecRef("tests", "Orvane::AutoRelease::Release", 0) : 0;
  }
  // Hands the reference to the caller.
  Object* Take() {
    Object* const object = object_;
    object_ = nullptr;
    return object;
  }

 private:
  Object* object_;
};

// One AddRef or DecRef.
struct CallSite {
  std::string file;
  std::string function;
  unsigned long line;

  bool operator==(const CallSite&) const = default;
};
void PrintTo(const CallSite& site, std::ostream* out);

// Any shared object, noting who adds and releases references. The notes outlive the object.
struct CallSites {
  std::vector<CallSite> added;
  std::vector<CallSite> released;
};

template <typename Base>
class Recording : public Base {
 public:
  template <typename... Arguments>
  explicit Recording(CallSites* sites, Arguments... arguments)
      : Base(arguments...), sites_(sites) {}

  long AddRef(const char* file, const char* function, unsigned long line) override {
    sites_->added.push_back({file, function, line});
    return Base::AddRef(file, function, line);
  }
  long DecRef(const char* file, const char* function, unsigned long line) override {
    sites_->released.push_back({file, function, line});
    return Base::DecRef(file, function, line);
  }

 protected:
  ~Recording() override = default;

 private:
  CallSites* const sites_;
};

// Whether the processor time of work(count) grows about as `count` does: clearly less than the 256
// times of quadratic growth from a sixteenth of it. Tries again when the machine got in the way.
::testing::AssertionResult GrowsLinearly(const std::function<void(std::size_t count)>& work,
                                         std::size_t count);

}  // namespace Orvane
