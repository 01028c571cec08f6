// The engines of this host, for tests.
#pragma once

#include <string>

#include "OSServicesHost.h"

namespace Orvane {

using Engine = NativeFileSysInterfaceImpHost::Engine;

inline constexpr const char* kEngineNames = "auto, uring or threads";

// One that works everywhere.
inline constexpr Engine kPlainEngine = NativeFileSysInterfaceImpHost::kEngineThreads;
inline constexpr const char* kPlainEngineName = "threads";
inline constexpr bool kPlainEngineHasThreads = true;  // beside the I/O thread
inline constexpr Engine kOtherEngine = NativeFileSysInterfaceImpHost::kEngineUring;

// False for a name that is none.
inline bool ToEngine(const std::string& name, Engine* engine) {
  using Imp = NativeFileSysInterfaceImpHost;
  if (name == "auto") {
    *engine = Imp::kEngineAuto;
  } else if (name == "uring") {
    *engine = Imp::kEngineUring;
  } else if (name == "threads") {
    *engine = Imp::kEngineThreads;
  } else {
    return false;
  }
  return true;
}

}  // namespace Orvane
