// A file opened through the library.
#pragma once

#include <string>

#include "NativeFileSysInterface.h"
#include "Ref.h"

namespace OrvaneTool {

// Owns the source and closes it at the end. Throws ToolError from the constructor.
class File {
 public:
  enum Direction { kForRead, kForWrite };

  // REQUIRES: the file exists (see RequireReadable, RequireWritable).
  File(const std::string& name, Direction direction);
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const std::string& name() const { return name_; }
  Orvane::NativeFileSource& source() const { return *source_; }

 private:
  const std::string name_;
  const Ref<Orvane::NativeFileSource> source_;
};

}  // namespace OrvaneTool
