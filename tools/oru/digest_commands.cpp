// oru sha1 and oru base64: the same bytes in and out as coreutils' sha1sum
// and base64, computed by the library's Sha1Hasher and Base64.
#include <oru/sha1.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "oru_command.h"
#include "progress.h"

namespace oru::tool {

namespace {

constexpr std::size_t CHUNK = 1 << 16;
constexpr std::size_t LINE = 76;
// Whole lines of output per read when encoding: 57 bytes make 76 characters.
constexpr std::size_t ENCODE_CHUNK = 57 * 1024;

// Reads `path` ("-": stdin) through `use`, with a progress bar for large files.
template <class Use>
void ReadAll(std::string const& path, bool quiet, Use use) {
  std::FILE* in = OpenInput(path);
  Progress progress("sha1 " + path, InputSize(path), quiet);
  std::vector<char> buffer(CHUNK);
  uint64_t done = 0;
  std::size_t n;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), in)) > 0) {
    use(buffer.data(), n);
    progress.Update(done += n);
  }
  const bool failed = std::ferror(in) != 0;
  CloseInput(in);
  if (failed) throw Failure(path + ": read error");
}

std::string Sha1OfFile(std::string const& path, bool quiet) {
  Sha1Hasher hasher;
  ReadAll(path, quiet, [&](char const* data, std::size_t n) { hasher.Append(data, n); });
  return HexForm(hasher.Finalize());
}

// sha1sum writes a name holding a backslash, a line feed or a carriage
// return escaped, and marks the line with a leading backslash.
std::string EscapedName(std::string const& name, bool& escaped) {
  std::string out;
  escaped = false;
  for (const char c : name) {
    if (c == '\\' || c == '\n' || c == '\r') {
      escaped = true;
      out += '\\';
      out += c == '\\' ? '\\' : c == '\n' ? 'n' : 'r';
    } else {
      out += c;
    }
  }
  return out;
}

bool Unescape(std::string const& text, std::string& out) {
  out.clear();
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    if (++i == text.size()) return false;
    const char c = text[i];
    if (c == '\\') {
      out += '\\';
    } else if (c == 'n') {
      out += '\n';
    } else if (c == 'r') {
      out += '\r';
    } else {
      return false;
    }
  }
  return true;
}

bool IsHexDigest(std::string const& text) {
  if (text.size() != 40) return false;
  for (const char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// One line of a checksum list: "<hex>  <name>", "<hex> *<name>" or the
// BSD form "SHA1 (<name>) = <hex>", with a leading backslash when escaped.
bool ParseListLine(std::string line, std::string& digest, std::string& name) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  bool escaped = false;
  if (!line.empty() && line[0] == '\\') {
    escaped = true;
    line.erase(0, 1);
  }
  std::string raw;
  if (line.rfind("SHA1 (", 0) == 0) {
    const auto close = line.rfind(") = ");
    if (close == std::string::npos || close < 6) return false;
    raw = line.substr(6, close - 6);
    digest = line.substr(close + 4);
  } else {
    if (line.size() < 43 || line[40] != ' ' || (line[41] != ' ' && line[41] != '*')) return false;
    digest = line.substr(0, 40);
    raw = line.substr(42);
  }
  if (!IsHexDigest(digest) || raw.empty()) return false;
  for (char& c : digest) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (!escaped) {
    name = raw;
    return true;
  }
  return Unescape(raw, name);
}

std::string Plural(std::size_t n, char const* one, char const* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

// As sha1sum -c: a line per listed file, then the warnings of each list.
int Check(std::vector<std::string> const& lists, bool quiet) {
  int code = 0;
  for (std::string const& list : lists) {
    std::string text;
    ReadAll(list, true, [&](char const* data, std::size_t n) { text.append(data, n); });
    std::size_t goodLines = 0;
    std::size_t badLines = 0;
    std::size_t unreadable = 0;
    std::size_t mismatched = 0;
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      const std::string line = text.substr(start, end - start);
      start = end + 1;
      std::string digest;
      std::string name;
      if (!ParseListLine(line, digest, name)) {
        ++badLines;
        continue;
      }
      ++goodLines;
      // sha1sum -c escapes only names with a line feed.
      std::string shown = name;
      if (name.find('\n') != std::string::npos) {
        bool escaped;
        shown = "\\" + EscapedName(name, escaped);
      }
      std::string actual;
      try {
        actual = Sha1OfFile(name, quiet);
      } catch (Failure const& failure) {
        Complain(failure.what());
        std::printf("%s: FAILED open or read\n", shown.c_str());
        ++unreadable;
        continue;
      }
      const bool ok = actual == digest;
      if (!ok) ++mismatched;
      std::printf("%s: %s\n", shown.c_str(), ok ? "OK" : "FAILED");
    }
    if (goodLines == 0) {
      Complain(list + ": no properly formatted SHA1 checksum lines found");
      code = 1;
      continue;
    }
    if (badLines != 0) {
      Complain("WARNING: " + Plural(badLines, "line is", "lines are") + " improperly formatted");
    }
    if (unreadable != 0) {
      Complain("WARNING: " + Plural(unreadable, "listed file", "listed files") +
               " could not be read");
    }
    if (mismatched != 0) {
      Complain("WARNING: " + Plural(mismatched, "computed checksum", "computed checksums") +
               " did NOT match");
    }
    if (unreadable != 0 || mismatched != 0) code = 1;
  }
  return code;
}

int Sha1(std::vector<std::string> const& files, bool quiet) {
  int code = 0;
  for (std::string const& file : files) {
    try {
      const std::string digest = Sha1OfFile(file, quiet);
      bool escaped;
      const std::string name = EscapedName(file, escaped);
      std::printf("%s%s  %s\n", escaped ? "\\" : "", digest.c_str(), name.c_str());
    } catch (Failure const& failure) {
      Complain(failure.what());  // as sha1sum: the other files are still hashed
      code = 1;
    }
  }
  return code;
}

int Encode(std::string const& path) {
  std::string pending;
  std::size_t column = 0;
  auto emit = [&column](std::string const& text) {
    std::string out;
    out.reserve(text.size() + text.size() / LINE + 1);
    for (const char c : text) {
      out += c;
      if (++column == LINE) {
        out += '\n';
        column = 0;
      }
    }
    WriteOut(out.data(), out.size());
  };
  ReadAll(path, true, [&](char const* data, std::size_t n) {
    pending.append(data, n);
    const std::size_t whole = pending.size() - pending.size() % 3;
    if (whole >= ENCODE_CHUNK) {
      emit(Base64::Encode(pending.data(), whole));
      pending.erase(0, whole);
    }
  });
  emit(Base64::Encode(pending.data(), pending.size()));
  if (column != 0) WriteOut("\n", 1);
  return 0;
}

// coreutils' rules: line feeds are skipped; every group of four characters
// must be four of the alphabet, or two or three followed by '=' padding.
// The bytes before a bad group's first stray character are still written,
// then decoding fails.
int Decode(std::string const& path) {
  static const auto inAlphabet = [] {
    std::array<bool, 256> table{};
    for (const char c :
         std::string("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"))
      table[static_cast<unsigned char>(c)] = true;
    return table;
  }();
  auto valid = [](char c) { return inAlphabet[static_cast<unsigned char>(c)]; };
  std::string pending;
  bool bad = false;
  auto emit = [](std::string_view text) {
    const std::vector<char> bytes = Base64::Decode(text.data(), text.size());
    WriteOut(bytes.data(), bytes.size());
  };
  auto drain = [&] {
    std::size_t i = 0;
    while (!bad && pending.size() - i >= 4) {
      std::size_t j = i;
      while (pending.size() - j >= 4 && valid(pending[j]) && valid(pending[j + 1]) &&
             valid(pending[j + 2]) && valid(pending[j + 3])) {
        j += 4;
      }
      if (j > i) {
        emit(std::string_view(pending).substr(i, j - i));
        i = j;
        continue;
      }
      const std::string_view group = std::string_view(pending).substr(i, 4);
      emit(group);
      const bool padded = valid(group[0]) && valid(group[1]) && group[3] == '=' &&
                          (group[2] == '=' || valid(group[2]));
      bad = !padded;
      i += 4;
    }
    pending.erase(0, i);
  };
  ReadAll(path, true, [&](char const* data, std::size_t n) {
    if (bad) return;
    for (std::size_t k = 0; k < n; ++k) {
      if (data[k] != '\n') pending += data[k];
    }
    drain();
  });
  if (!bad && !pending.empty()) {
    emit(pending);  // an unfinished last group
    bad = true;
  }
  if (bad) throw Failure("invalid input");
  return 0;
}

}  // namespace

void AddDigestCommands(CLI::App& app, Context& ctx) {
  struct Args {
    std::vector<std::string> files;
    std::string file = "-";
    bool check = false;
    bool decode = false;
  };
  auto args = std::make_shared<Args>();

  auto* sha1 = app.add_subcommand("sha1", "SHA-1 digests in sha1sum's format");
  sha1->add_option("FILE", args->files, "Files to hash (- or none: standard input)");
  sha1->add_flag("-c,--check", args->check, "Read digests from the FILEs and check them");
  sha1->callback([&ctx, args] {
    if (args->files.empty()) args->files.push_back("-");
    ctx.run = [args, &ctx] {
      return args->check ? Check(args->files, ctx.quiet) : Sha1(args->files, ctx.quiet);
    };
  });

  auto* base64 = app.add_subcommand("base64", "Base64 as coreutils' base64 writes it (76 wide)");
  base64->add_option("FILE", args->file, "The file (- or none: standard input)");
  base64->add_flag("-d,--decode", args->decode, "Decode instead");
  base64->callback([&ctx, args] {
    ctx.run = [args] { return args->decode ? Decode(args->file) : Encode(args->file); };
  });
}

}  // namespace oru::tool
