#include "File.h"

#include "Errors.h"

namespace OrvaneTool {

File::File(const std::string& name, Direction direction)
    : name_(name), source_(Orvane::NativeFileSysInterface::NewNativeFileSource(name.c_str())) {
  const bool write = direction == kForWrite;
  if (!source_ || !source_->Open(/*forRead=*/!write, /*forWrite=*/write, /*create=*/false)) {
    throw ToolError(kExitFile, "cannot open", name_, "refused by the library");
  }
}

File::~File() {
  source_->Close();
}

}  // namespace OrvaneTool
