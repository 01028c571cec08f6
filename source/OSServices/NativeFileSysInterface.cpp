#include "NativeFileSysInterface.h"

namespace Orvane {
namespace {

constexpr const char* kNotInstalled = "NativeFileSysInterface No Installed Implementation";

NativeFileSysInterfaceImp* installedImp = nullptr;  // written by the installation only

}  // namespace

NativeFileSysInterfaceImp::NativeFileSysInterfaceImp() = default;
NativeFileSysInterfaceImp::~NativeFileSysInterfaceImp() = default;
void NativeFileSysInterfaceImp::Installed() {}

NativeFileSource* NativeFileSysInterface::NewNativeFileSource(const char* name) {
  if (!installedImp) throw kNotInstalled;
  return installedImp->NewNativeFileSource(name);
}

void NativeFileSysInterface::InstallImplementation(NativeFileSysInterfaceImp* imp) {
  if (!imp) throw kNotInstalled;
  if (installedImp) throw "NativeFileSysInterface Implementation Already Installed";
  installedImp = imp;
  imp->Installed();
}

}  // namespace Orvane
