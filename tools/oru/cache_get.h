// Internal to the oru command: `oru cache get`, which needs liboru-net.
// cache_get_net.cpp is built when the oru::net target exists,
// cache_get_none.cpp (which only says so) otherwise.
#pragma once

#include <cstdint>
#include <string>

namespace oru::tool {

struct CacheGetArgs {
  std::string url;
  std::string dir;     ///< empty: the default cache
  std::string output;  ///< empty: no copy
  bool revalidate = false;
  uint64_t limit = 0;
  unsigned timeoutSeconds = 60;
};

/// Serves args.url from the cache (downloading it on a miss), says where it
/// came from and where it is, and copies it to args.output when given.
int CacheGet(CacheGetArgs const& args, bool quiet);

}  // namespace oru::tool
