// What is compared with what, and how good the library is meant to be.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Runner.h"

namespace bench {

enum class Measure {
  kRate,       // items per second
  kTime,       // per item
  kProcessor,  // processor time per item
};

// The measure of one contender divided by that of another in the same round; of several others, by
// the largest.
struct Aim {
  std::string id;  // as in docs/PERFORMANCE.md
  std::string contender;
  std::vector<std::string> against;
  Measure measure;
  bool atLeast;  // else at most
  double bound;
};

struct Contender {
  std::string name;
  RunnerFactory make;
  double place = 0;  // on the axis of a growth curve; 0: on none
};

// Contenders that do the same items in different ways, or the same way at different sizes.
struct Work {
  std::string name;
  std::string unit;   // of items: "reads"
  std::size_t items;  // in a pass
  std::vector<Contender> contenders;
  std::vector<Aim> aims;
};

// A value that is not a ratio between two contenders.
struct Value {
  std::string name;
  std::string unit;
  double value;
};

struct FigureAim {
  std::string id;
  std::string value;  // its name
  bool atLeast;       // else at most
  double bound;
};

struct Figure {
  std::string name;
  std::function<std::vector<Value>()> measure;
  std::vector<FigureAim> aims;
};

struct Suite {
  std::vector<Work> works;
  std::vector<Figure> figures;
};

// What there is to measure, by subject.
class TestFile;
void AddUncachedWorks(Suite* suite, const std::string& kind, bool isDevice, const TestFile& file);
void AddHitWorks(Suite* suite, const TestFile& file);
void AddBlockCacheWorks(Suite* suite, const TestFile& file);
void AddThreadWorks(Suite* suite, const TestFile& file);
void AddScanWorks(Suite* suite, const TestFile& file);
void AddGrowthWorks(Suite* suite);
void AddCommandWorks(Suite* suite);
void AddShortageWorks(Suite* suite, const TestFile& file);
void AddDueTimeFigures(Suite* suite);
void AddFootprintFigures(Suite* suite);

}  // namespace bench
