// The block cache that file sources are attached to.
#pragma once

#include <cstdint>

#include "Export.h"
#include "SharedObject.h"

namespace Orvane {

// The class to which CacheSource::UseCache binds a source. This version of the library makes no
// caches: the constructor is for derived classes, a cache of which has no blocks and accepts no
// read (kResultNotSupported from every cached read); writes, Cancel and Close of an attached source
// work as without a cache.
class ORVANE_EXPORT Cache : public SharedObject {
 public:
  // As soon as possible; equal to CacheSource::kDueASAP.
  static constexpr std::uint32_t kDueASAP = 0;

 protected:
  Cache();
  ~Cache() override;
};

}  // namespace Orvane
