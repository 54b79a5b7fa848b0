// Internal: outside text (a converted string, an archive member's name)
// echoed into a one-line diagnostic on the standard error stream.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace oru::detail {

constexpr std::size_t ECHO_LIMIT = 256;

// `text` cut at `limit` bytes, with "..." after a cut, and every control
// byte (below 0x20, and 0x7F) written as \xNN: whatever the input, the
// diagnostic stays one short line.
std::string EchoText(std::string_view text, std::size_t limit = ECHO_LIMIT);

}  // namespace oru::detail
