// The order in which locks were entered, of all runs of the process.
#pragma once

#include <string>

namespace Orvane {

class MTCritSecSim;
class SimWorld;
struct SimThread;

// Fails the run when a lock is entered that was held, in any run so far, while one of those that
// the thread holds was entered; and when two of a class are held at once, but for those of which an
// application may hold several. Locks without a class are the application's own.
class SimLockOrder {
 public:
  static void BeforeEnter(SimWorld* world, const SimThread* thread, const MTCritSecSim* entered);
  static void AfterLeave(SimThread* thread, const MTCritSecSim* left);
  static std::string ToText();
};

}  // namespace Orvane
