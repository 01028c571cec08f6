// One read or pre-read request on its way through a cache.
#pragma once

namespace Orvane {

// Named by the hooks of CacheSource that a cache calls. Only a cache makes transactions; sources
// that are read without one never see any.
class CacheTransaction;

}  // namespace Orvane
