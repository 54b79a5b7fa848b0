// `oru cache get` in a build without liboru-net.
#include "cache_get.h"
#include "oru_command.h"

namespace oru::tool {

int CacheGet(CacheGetArgs const&, bool) {
  throw Failure("built without network support");
}

}  // namespace oru::tool
