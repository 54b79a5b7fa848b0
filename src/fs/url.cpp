#include "oru/url.h"

#include <array>
#include <filesystem>
#include <system_error>

#include "oru/file_data_source.h"
#include "oru/file_spec.h"
#include "oru/zip_data_stream.h"

namespace oru {

namespace {

// Character classes of RFC 3986, as bits of one table.
enum : uint8_t {
  UNRESERVED = 1,  // ALPHA DIGIT - . _ ~
  SUB_DELIM = 2,   // ! $ & ' ( ) * + , ; =
  HEX = 4,
  SCHEME = 8,  // ALPHA DIGIT + - .
};

constexpr std::array<uint8_t, 256> MakeClasses() {
  std::array<uint8_t, 256> t{};
  for (int c = 0; c < 256; ++c) {
    const bool alpha = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    const bool digit = c >= '0' && c <= '9';
    if (alpha || digit || c == '-' || c == '.' || c == '_' || c == '~') t[c] |= UNRESERVED;
    for (char d : std::string_view("!$&'()*+,;=")) {
      if (c == d) t[c] |= SUB_DELIM;
    }
    if (digit || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f')) t[c] |= HEX;
    if (alpha || digit || c == '+' || c == '-' || c == '.') t[c] |= SCHEME;
  }
  return t;
}
constexpr std::array<uint8_t, 256> CLASSES = MakeClasses();

bool Is(char c, uint8_t classes) {
  return (CLASSES[static_cast<unsigned char>(c)] & classes) != 0;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// Whether every character of `text` is unreserved, a sub-delimiter, one of
// `extra`, or part of a well-formed percent sequence.
bool Valid(std::string_view text, std::string_view extra) {
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '%') {
      if (i + 2 >= text.size()) return false;
      if (!Is(text[i + 1], HEX) || !Is(text[i + 2], HEX)) return false;
      i += 2;
    } else if (!Is(c, UNRESERVED | SUB_DELIM) && extra.find(c) == std::string_view::npos) {
      return false;
    }
  }
  return true;
}

bool ValidIPv4(std::string_view text) {
  int parts = 0;
  size_t at = 0;
  while (true) {
    const size_t begin = at;
    while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
    const std::string_view octet = text.substr(begin, at - begin);
    // dec-octet: 0-255 without leading zeros.
    if (octet.empty() || octet.size() > 3 || (octet.size() > 1 && octet[0] == '0')) return false;
    int value = 0;
    for (char c : octet) value = value * 10 + (c - '0');
    if (value > 255) return false;
    ++parts;
    if (at == text.size()) return parts == 4;
    if (text[at] != '.' || parts == 4) return false;
    ++at;
  }
}

// RFC 3986's IPv6address: eight 16-bit pieces (an IPv4 address counting as
// two, last only), or fewer around one "::".
bool ValidIPv6(std::string_view text) {
  const size_t gap = text.find("::");
  if (gap != std::string_view::npos && text.find("::", gap + 1) != std::string_view::npos)
    return false;
  int pieces = 0;
  const auto countSide = [&pieces](std::string_view side, bool ipv4Allowed) {
    if (side.empty()) return true;
    size_t at = 0;
    while (true) {
      const size_t end = std::min(side.find(':', at), side.size());
      const std::string_view piece = side.substr(at, end - at);
      if (end == side.size() && ipv4Allowed && piece.find('.') != std::string_view::npos) {
        if (!ValidIPv4(piece)) return false;
        pieces += 2;
        return true;
      }
      if (piece.empty() || piece.size() > 4) return false;
      for (char c : piece) {
        if (!Is(c, HEX)) return false;
      }
      ++pieces;
      if (end == side.size()) return true;
      at = end + 1;
    }
  };
  if (gap == std::string_view::npos) return countSide(text, true) && pieces == 8;
  return countSide(text.substr(0, gap), false) && countSide(text.substr(gap + 2), true) &&
         pieces <= 7;
}

bool ValidIPLiteral(std::string_view text) {
  if (!text.empty() && (text[0] == 'v' || text[0] == 'V')) {
    // IPvFuture: "v" 1*HEXDIG "." 1*( unreserved / sub-delims / ":" )
    const size_t dot = text.find('.');
    if (dot == std::string_view::npos || dot < 2 || dot + 1 == text.size()) return false;
    for (size_t i = 1; i < dot; ++i) {
      if (!Is(text[i], HEX)) return false;
    }
    const std::string_view rest = text.substr(dot + 1);
    for (char c : rest) {
      if (!Is(c, UNRESERVED | SUB_DELIM) && c != ':') return false;
    }
    return true;
  }
  return ValidIPv6(text);
}

bool ParseAuthority(std::string_view authority, URLParts& out) {
  const size_t at = authority.find('@');
  std::string_view hostPort = authority;
  if (at != std::string_view::npos) {
    const std::string_view userInfo = authority.substr(0, at);
    if (!Valid(userInfo, ":")) return false;
    const size_t colon = userInfo.find(':');
    out.user.assign(userInfo.substr(0, colon));
    if (colon != std::string_view::npos) out.password.assign(userInfo.substr(colon + 1));
    hostPort = authority.substr(at + 1);
  }
  std::string_view portText;
  if (!hostPort.empty() && hostPort[0] == '[') {
    const size_t close = hostPort.find(']');
    if (close == std::string_view::npos) return false;
    const std::string_view literal = hostPort.substr(1, close - 1);
    if (!ValidIPLiteral(literal)) return false;
    out.host.assign(literal);
    const std::string_view after = hostPort.substr(close + 1);
    if (!after.empty()) {
      if (after[0] != ':') return false;
      portText = after.substr(1);
    }
  } else {
    const size_t colon = hostPort.find(':');
    const std::string_view host = hostPort.substr(0, colon);
    if (!Valid(host, "")) return false;
    out.host.assign(host);
    if (colon != std::string_view::npos) portText = hostPort.substr(colon + 1);
  }
  if (portText.empty()) return true;  // no port, or an empty one
  if (portText.size() > 5) return false;
  int port = 0;
  for (char c : portText) {
    if (c < '0' || c > '9') return false;
    port = port * 10 + (c - '0');
  }
  if (port > 65535) return false;
  out.port = port;
  return true;
}

}  // namespace

bool ParseURL(std::string_view url, URLParts& out) {
  // Cleared, not replaced: a URLParts used again keeps its strings' room.
  for (std::string* part :
       {&out.scheme, &out.user, &out.password, &out.host, &out.path, &out.query, &out.fragment})
    part->clear();
  out.port = -1;
  const size_t colon = url.find(':');
  if (colon == std::string_view::npos || colon == 0 || !Is(url[0], SCHEME) || url[0] == '+' ||
      url[0] == '-' || url[0] == '.' || (url[0] >= '0' && url[0] <= '9'))
    return false;
  for (size_t i = 0; i < colon; ++i) {
    if (!Is(url[i], SCHEME)) return false;
  }
  out.scheme.assign(url.substr(0, colon));
  for (char& c : out.scheme) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  std::string_view rest = url.substr(colon + 1);
  if (const size_t hash = rest.find('#'); hash != std::string_view::npos) {
    out.fragment.assign(rest.substr(hash + 1));
    if (!Valid(out.fragment, ":@/?")) return false;
    rest = rest.substr(0, hash);
  }
  if (const size_t question = rest.find('?'); question != std::string_view::npos) {
    out.query.assign(rest.substr(question + 1));
    if (!Valid(out.query, ":@/?")) return false;
    rest = rest.substr(0, question);
  }
  if (rest.substr(0, 2) == "//") {
    const size_t slash = rest.find('/', 2);
    if (!ParseAuthority(rest.substr(2, slash == std::string_view::npos ? slash : slash - 2), out))
      return false;
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
  }
  if (!Valid(rest, ":@/")) return false;
  out.path.assign(rest);
  return true;
}

std::string URI_Escape(std::string_view text, std::string_view keep) {
  static constexpr char HEX_DIGITS[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (Is(c, UNRESERVED) || keep.find(c) != std::string_view::npos) {
      out += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      out += '%';
      out += HEX_DIGITS[byte >> 4];
      out += HEX_DIGITS[byte & 15];
    }
  }
  return out;
}

std::string URI_Unescape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      const int high = HexValue(text[i + 1]);
      const int low = HexValue(text[i + 2]);
      if (high >= 0 && low >= 0) {
        out += static_cast<char>(high * 16 + low);
        i += 2;
        continue;
      }
    }
    out += text[i];
  }
  return out;
}

std::string GetURLForFileSource(std::string_view localPath) {
  namespace fs = std::filesystem;
  const std::u8string given(localPath.begin(), localPath.end());
  std::error_code error;
  fs::path absolute = fs::absolute(fs::path(given), error);
  if (error) absolute = fs::path(given);
  // "/" between the parts, whatever the platform writes.
  const std::u8string generic = absolute.generic_u8string();
  const std::string path(generic.begin(), generic.end());
  if (path.size() >= 2 && path[1] == ':') {
    // A drive path: the empty authority, then the drive as it stands.
    return "file:///" + path.substr(0, 2) + URI_Escape(path.substr(2), "/");
  }
  if (path.substr(0, 2) == "//") {
    // A UNC path "//server/share/...": the server is the authority.
    return "file:" + URI_Escape(path, "/");
  }
  return "file://" + URI_Escape(path, "/");
}

std::shared_ptr<DataSource> GetFileSourceForURL(std::string_view url) {
  if (url.substr(0, 16) == "zipdatastream://") return ZipDataStream::FindDataSource(url);
  URLParts parts;
  const bool isUrl = ParseURL(url, parts);
  // On Windows "C:/dir" reads as a URL with the scheme "c": a drive letter
  // is a path.
  const bool drivePath =
      FileSpec::NATIVE_STYLE == FileSpec::Style::Windows && isUrl && parts.scheme.size() == 1;
  if (!isUrl || drivePath) return FileDataSource::Create(url);
  if (parts.scheme != "file") return nullptr;
  std::string path = URI_Unescape(parts.path);
  if (!parts.host.empty() && parts.host != "localhost") {
    if constexpr (FileSpec::NATIVE_STYLE != FileSpec::Style::Windows) return nullptr;
    path = "//" + URI_Unescape(parts.host) + path;
  } else if (FileSpec::NATIVE_STYLE == FileSpec::Style::Windows && path.size() >= 3 &&
             path[0] == '/' && path[2] == ':') {
    path.erase(0, 1);  // "/C:/dir" is the drive path "C:/dir"
  }
  return FileDataSource::Create(path);
}

std::string FindURLFileExtension(std::string_view url) {
  url = url.substr(0, url.find('#'));
  url = url.substr(0, url.find('?'));
  // The authority of "scheme://authority/path" is no path segment.
  const size_t authority = url.find("://");
  if (authority != std::string_view::npos && authority > 0) {
    bool scheme = true;
    for (size_t i = 0; i < authority; ++i) scheme = scheme && Is(url[i], SCHEME);
    if (scheme) {
      const size_t slash = url.find('/', authority + 3);
      url = slash == std::string_view::npos ? std::string_view() : url.substr(slash);
    }
  }
  const size_t slash = url.find_last_of("/\\");
  const std::string_view segment = slash == std::string_view::npos ? url : url.substr(slash + 1);
  const size_t dot = segment.rfind('.');
  if (dot == std::string_view::npos || dot == 0) return {};
  return std::string(segment.substr(dot + 1));
}

}  // namespace oru
