#include "text/echo_text.h"

namespace oru::detail {

std::string EchoText(std::string_view text, std::size_t limit) {
  const bool cut = text.size() > limit;
  if (cut) text = text.substr(0, limit);
  std::string out;
  out.reserve(text.size() + 3);
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F) {
      constexpr char HEX[] = "0123456789ABCDEF";
      out += "\\x";
      out += HEX[byte >> 4];
      out += HEX[byte & 15];
    } else {
      out += c;
    }
  }
  if (cut) out += "...";
  return out;
}

}  // namespace oru::detail
