// The engines of this host, for tests.
#pragma once

#include <string>

#include "OSServicesHost.h"

namespace Orvane {

using Engine = NativeFileSysInterfaceImpHost::Engine;

inline constexpr const char* kEngineNames = "auto or overlapped";

// One that works everywhere.
inline constexpr Engine kPlainEngine = NativeFileSysInterfaceImpHost::kEngineOverlapped;
inline constexpr const char* kPlainEngineName = "overlapped";
inline constexpr bool kPlainEngineHasThreads = false;  // beside the I/O thread
inline constexpr Engine kOtherEngine = NativeFileSysInterfaceImpHost::kEngineAuto;

// False for a name that is none.
inline bool ToEngine(const std::string& name, Engine* engine) {
  using Imp = NativeFileSysInterfaceImpHost;
  if (name == "auto") {
    *engine = Imp::kEngineAuto;
  } else if (name == "overlapped") {
    *engine = Imp::kEngineOverlapped;
  } else {
    return false;
  }
  return true;
}

}  // namespace Orvane
