// What the tests look at and change in files beside the library, on Linux.
#pragma once

#include <string>
#include <vector>

namespace Orvane {

// Mounts made from now on by the main thread are seen by nobody else and go with the process.
// False without the privilege.
bool EnterPrivateMounts();

// A mounted file system; unmounted at the end.
class Mount {
 public:
  // Runs the system's mount program with these arguments; the mount point is made and removed.
  explicit Mount(const std::vector<std::string>& arguments);
  ~Mount();
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;

  bool IsMounted() const { return mounted_; }
  std::string PathOf(const std::string& name) const { return point_ + "/" + name; }
  void Unmount();

 private:
  const std::string point_;
  bool mounted_ = false;
};

// Runs a program without a shell, its output discarded; true if it exits with 0.
bool RunProgram(std::vector<std::string> arguments);

}  // namespace Orvane
