// A file that a command is about to write.
#pragma once

#include <string>

namespace OrvaneTool {

// Makes sure that the file can be written, creating it when it is missing. Unless kept, a file that
// was created is removed at the end.
class Target {
 public:
  // Throws ToolError.
  explicit Target(std::string file);
  ~Target();
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  bool created() const { return created_; }
  // The file is complete.
  void Keep() { kept_ = true; }
  // What the user is told about a file that is not kept; `state` describes one that stays.
  std::string LeftBehind(const char* state) const;

 private:
  const std::string file_;
  const bool created_;
  bool kept_ = false;
};

}  // namespace OrvaneTool
