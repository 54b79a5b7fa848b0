// Internal: the hashes of a heap trace's tables, FNV-1a over the keys' bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "oru/symbol.h"

namespace oru::detail {

struct TraceKeyHash {
  size_t operator()(uint64_t key) const noexcept {
    unsigned char bytes[8];
    std::memcpy(bytes, &key, 8);
    return static_cast<size_t>(Symbol::Hash(reinterpret_cast<const char*>(bytes), 8));
  }
};

// Transparent: looks up std::string keys by std::string_view.
struct TraceTextHash {
  using is_transparent = void;
  size_t operator()(std::string_view text) const noexcept {
    return static_cast<size_t>(Symbol::Hash(text.data(), text.size()));
  }
};

}  // namespace oru::detail
