#include "OSServices/ReportScope.h"

#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "OrvaneTest.h"
#include "SharedObject.h"

namespace Orvane {
namespace {

// Notes in one log what happens, in order.
class ReportScopeTest : public OrvaneTest {
 protected:
  class Report : public DeferredReport {
   public:
    Report(ReportScopeTest* test, std::string name, std::function<void()> body)
        : test_(test), name_(std::move(name)), body_(std::move(body)) {}
    void FinishReport() override {
      test_->log_.push_back(name_);
      if (body_) body_();
    }

   private:
    ReportScopeTest* const test_;
    const std::string name_;
    const std::function<void()> body_;
  };

  class Object : public SharedObject {
   public:
    Object(ReportScopeTest* test, std::string name, std::function<void()> body)
        : test_(test), name_(std::move(name)), body_(std::move(body)) {}

   protected:
    ~Object() override {
      test_->log_.push_back(name_);
      if (body_) body_();
    }

   private:
    ReportScopeTest* const test_;
    const std::string name_;
    const std::function<void()> body_;
  };

  bool Defer(const std::string& name, std::function<void()> body = {}) {
    reports_.push_back(std::make_unique<Report>(this, name, std::move(body)));
    return ReportScope::Defer(reports_.back().get());
  }
  void Release(const std::string& name, std::function<void()> body = {}) {
    ReportScope::Release(new Object(this, name, std::move(body)), "tests", "Release", 1);
  }
  std::vector<std::string> TakeLog() { return std::exchange(log_, {}); }

  std::vector<std::string> log_;
  std::vector<std::unique_ptr<Report>> reports_;
};

using Log = std::vector<std::string>;

TEST_F(ReportScopeTest, WithoutAScopeNothingIsPutOff) {
  EXPECT_FALSE(Defer("report"));
  Release("release");
  EXPECT_EQ((Log{"release"}), TakeLog());
  ReportScope::Release(nullptr, "tests", "none", 1);
  const ReportScope::LibrarysCode librarysCode;
  EXPECT_FALSE(Defer("report"));
}

TEST_F(ReportScopeTest, ReportsRunInTheOrderInWhichTheyCameAndReleasesBeforeThem) {
  {
    ReportScope scope;
    Release("first release");
    EXPECT_TRUE(Defer("first"));
    EXPECT_TRUE(Defer("second"));
    Release("second release");
    EXPECT_TRUE(Defer("third"));
    ReportScope::Release(nullptr, "tests", "none", 1);
    EXPECT_EQ(Log{}, TakeLog());
  }
  EXPECT_EQ((Log{"first release", "second release", "first", "second", "third"}), TakeLog());
}

TEST_F(ReportScopeTest, OnlyTheOutermostScopeCounts) {
  {
    ReportScope outer;
    {
      ReportScope inner;
      EXPECT_TRUE(Defer("report"));
      Release("release");
    }
    EXPECT_EQ(Log{}, TakeLog());
  }
  EXPECT_EQ((Log{"release", "report"}), TakeLog());
  EXPECT_FALSE(Defer("late"));
}

TEST_F(ReportScopeTest, ScopesBelongToTheirThread) {
  ReportScope scope;
  bool deferred = true;
  std::thread([this, &deferred] { deferred = Defer("elsewhere"); }).join();
  EXPECT_FALSE(deferred);
}

TEST_F(ReportScopeTest, NoScopeIsOpenWhileReportsRun) {
  {
    ReportScope scope;
    Defer("report", [this] {
      EXPECT_FALSE(Defer("at once"));
      Release("released at once");
      {
        ReportScope own;
        EXPECT_TRUE(Defer("in a scope of its own"));
      }
      log_.push_back("end of report");
    });
    Defer("next");
  }
  EXPECT_EQ((Log{"report", "released at once", "in a scope of its own", "end of report", "next"}),
            TakeLog());
  EXPECT_FALSE(Defer("late"));
}

TEST_F(ReportScopeTest, WhatIsDeferredWhileReportsRunIsRunBeforeTheScopeEnds) {
  {
    ReportScope scope;
    Defer("report", [this] {
      const ReportScope::LibrarysCode librarysCode;
      EXPECT_TRUE(Defer("more"));
      Release("more released");
    });
    Release("release", [this] {
      const ReportScope::LibrarysCode librarysCode;
      EXPECT_TRUE(Defer("most"));
      Release("most released");
    });
  }
  EXPECT_EQ((Log{"release", "report", "most", "more", "most released", "more released"}),
            TakeLog());
}

TEST_F(ReportScopeTest, CallersCodeRunsOutsideOfTheScope) {
  ReportScope scope;
  {
    const ReportScope::CallersCode callersCode;
    EXPECT_FALSE(Defer("at once"));
    Release("release");
    EXPECT_EQ((Log{"release"}), TakeLog());
    {
      ReportScope own;
      EXPECT_TRUE(Defer("report"));
    }
    EXPECT_EQ((Log{"report"}), TakeLog());
  }
  EXPECT_TRUE(Defer("put off again"));
  EXPECT_EQ(Log{}, TakeLog());
}

TEST_F(ReportScopeTest, LibrarysCodeReopensTheSuspendedScope) {
  {
    ReportScope scope;
    const ReportScope::CallersCode callersCode;
    {
      const ReportScope::LibrarysCode librarysCode;
      EXPECT_TRUE(Defer("report"));
      {
        const ReportScope::CallersCode again;
        EXPECT_FALSE(Defer("at once"));
      }
      ReportScope inner;
      EXPECT_TRUE(Defer("second"));
    }
    EXPECT_EQ(Log{}, TakeLog());
    EXPECT_FALSE(Defer("at once"));
  }
  EXPECT_EQ((Log{"report", "second"}), TakeLog());
}

TEST_F(ReportScopeTest, LibrarysCodeStaysWithTheOpenScope) {
  ReportScope outer;
  const ReportScope::CallersCode callersCode;
  {
    ReportScope own;
    const ReportScope::LibrarysCode librarysCode;
    EXPECT_TRUE(Defer("report"));
  }
  EXPECT_EQ((Log{"report"}), TakeLog());
}

TEST_F(ReportScopeTest, ExceptionsDoNotEscape) {
  TestMTInterface::Get().TakeDebugText();
  {
    ReportScope scope;
    Defer("throws", [] { throw std::runtime_error("of the caller"); });
    Defer("next");
  }
  EXPECT_EQ((Log{"throws", "next"}), TakeLog());
  EXPECT_EQ("Unhandled Exception In A Report\n", TestMTInterface::Get().TakeDebugText());
}

class Stubborn : public SharedObject {
 public:
  long DecRef(const char* file, const char* function, unsigned long line) override {
    SharedObject::DecRef(file, function, line);
    throw std::runtime_error("of the caller");
  }
};

TEST_F(ReportScopeTest, ExceptionsOfReleasesDoNotEscape) {
  TestMTInterface::Get().TakeDebugText();
  {
    ReportScope scope;
    ReportScope::Release(new Stubborn, "tests", "Release", 1);
    Release("next");
  }
  EXPECT_EQ((Log{"next"}), TakeLog());
  EXPECT_EQ("Unhandled Exception In A Release\n", TestMTInterface::Get().TakeDebugText());
}

TEST_F(ReportScopeTest, ManyReleasesKeepTheirOrder) {
  Log expected;
  {
    ReportScope scope;
    for (int i = 0; i < 100; ++i) {
      expected.push_back(std::to_string(i));
      Release(expected.back());
    }
    EXPECT_EQ(Log{}, TakeLog());
  }
  EXPECT_EQ(expected, TakeLog());
}

TEST_F(ReportScopeTest, AReleaseThatFindsNoMemoryIsMadeAtOnce) {
  {
    ReportScope scope;
    for (int i = 0; i < 16; ++i) Release("put off");
    auto* const object = new Object(this, "now", {});
    log_.reserve(1);
    {
      const AllocationFailure failure(1);
      ReportScope::Release(object, "tests", "Release", 1);
    }
    EXPECT_EQ((Log{"now"}), TakeLog());
  }
  EXPECT_EQ(Log(16, "put off"), TakeLog());
}

TEST_F(ReportScopeTest, ReleasesNameTheirCallSites) {
  CallSites sites;
  auto* const object = new Recording<Object>(&sites, this, std::string("object"), nullptr);
  {
    ReportScope scope;
    ReportScope::Release(object, "some file", "some function", 17);
    EXPECT_EQ(std::vector<CallSite>{}, sites.released);
  }
  EXPECT_EQ((std::vector<CallSite>{{"some file", "some function", 17}}), sites.released);
}

}  // namespace
}  // namespace Orvane
