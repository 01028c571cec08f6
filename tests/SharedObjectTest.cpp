#include "SharedObject.h"

#include <stdexcept>

#include "MTInterface.h"
#include "OrvaneTest.h"

namespace Orvane {
namespace {

constexpr unsigned long kLine = 1;

class Probe : public SharedObject {
 public:
  explicit Probe(int* destroyed = nullptr) : destroyed_(destroyed) {}

  long Add() { return AddRef("tests", "Add", kLine); }
  long Drop() { return DecRef("tests", "Drop", kLine); }

 protected:
  ~Probe() override {
    if (destroyed_) ++*destroyed_;
  }

 private:
  int* const destroyed_;
};

// Enters the modify lock of an object and leaves it again.
class ModifierBody : public MTThreadBody {
 public:
  ModifierBody(SharedObject* object, MTSemaphore* entered) : object_(object), entered_(entered) {}

 protected:
  void ThreadMain(MTThread*) override {
    object_->BeginThreadSafeModify();
    entered_->Release(1);
    object_->FinishThreadSafeModify();
  }

 private:
  SharedObject* const object_;
  MTSemaphore* const entered_;
};

class SharedObjectTest : public OrvaneTest {};

TEST_F(SharedObjectTest, LastReleaseDestroysExactlyOnce) {
  int destroyed = 0;
  Probe* const object = new Probe(&destroyed);
  EXPECT_EQ(1, object->GetRefCount());
  EXPECT_EQ(2, object->Add());
  EXPECT_EQ(1, object->Drop());
  EXPECT_EQ(0, destroyed);
  EXPECT_EQ(0, object->Drop());
  EXPECT_EQ(1, destroyed);
}

TEST_F(SharedObjectTest, AutoRefOnNullDoesNothing) {
  const SharedObjectAutoRef reference(nullptr);
}

TEST_F(SharedObjectTest, AutoRefHoldsAReferenceForItsBlock) {
  AutoRelease<Probe> object(new Probe);
  {
    const SharedObjectAutoRef reference(object);
    EXPECT_EQ(2, object->GetRefCount());
  }
  EXPECT_EQ(1, object->GetRefCount());
}

TEST_F(SharedObjectTest, AutoRefReleasesWhenAnExceptionLeavesTheBlock) {
  AutoRelease<Probe> object(new Probe);
  try {
    const SharedObjectAutoRef reference(object);
    throw std::runtime_error("out");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(1, object->GetRefCount());
}

TEST_F(SharedObjectTest, AutoRefNamesItsCallSites) {
  CallSites sites;
  AutoRelease<Recording<Probe>> object(new Recording<Probe>(&sites));
  { const SharedObjectAutoRef reference(object); }
  const std::string file = "public_include/SharedObject";
  EXPECT_EQ((std::vector<CallSite>{{file, "Orvane::SharedObjectAutoRef::SharedObjectAutoRef", 65}}),
            sites.added);
  EXPECT_EQ(
      (std::vector<CallSite>{{file, "Orvane::SharedObjectAutoRef::~SharedObjectAutoRef", 70}}),
      sites.released);
}

TEST_F(SharedObjectTest, LeakLoggingIsNeverEnabled) {
  SharedObject::EnableLeakedObjectsLogging(1, 2);
  EXPECT_FALSE(SharedObject::IsLeakedObjectLoggingEnabled());
  SharedObject::PrintLeakedObjectsToDebugger();
  SharedObject::DisableLeakedObjectsLogging();
  EXPECT_FALSE(SharedObject::IsLeakedObjectLoggingEnabled());
}

// The nesting is the point: the analysis does not know it.
TEST_F(SharedObjectTest, ModifyLockNestsAndKeepsOtherThreadsOut) ORVANE_NO_THREAD_SAFETY_ANALYSIS {
  AutoRelease<Probe> object(new Probe);
  MTSemaphore* const entered = MTInterface::NewSemaphore(1, 0);
  ModifierBody body(object, entered);

  object->BeginThreadSafeModify();
  object->BeginThreadSafeModify();
  MTThread* const thread =
      MTInterface::NewThread(&body, MTThread::kPriorityNormal, MTThread::kProcessorAny);
  object->FinishThreadSafeModify();
  EXPECT_FALSE(entered->Wait(30, 1));
  object->FinishThreadSafeModify();
  EXPECT_TRUE(entered->Wait(10000, 1));

  EXPECT_TRUE(thread->Terminate(10000));
  delete thread;
  delete entered;
}

// An object whose count is 0 and that is still there: only the counter's start makes one.
TEST_F(SharedObjectTest, ReleasePastZeroAnswersMinusOneAndDestroysNothing) {
  int destroyed = 0;
  TestMTInterface::Get().StartNextAtomicAt(0);
  Probe* const object = new Probe(&destroyed);
  EXPECT_EQ(0, object->GetRefCount());
  EXPECT_EQ(-1, object->Drop());
  EXPECT_EQ(0, destroyed);
  EXPECT_EQ(0, object->Add());
  EXPECT_EQ(1, object->Add());
  EXPECT_EQ(0, object->Drop());
  EXPECT_EQ(1, destroyed);
}

}  // namespace
}  // namespace Orvane
