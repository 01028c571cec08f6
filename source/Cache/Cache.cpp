#include "Cache.h"

namespace Orvane {

Cache::Cache() = default;
Cache::~Cache() = default;

}  // namespace Orvane
