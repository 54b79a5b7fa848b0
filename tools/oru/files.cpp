// Input and output files of the oru command: clear one-line reasons for what
// cannot be read, and output files that appear whole or not at all.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "oru_command.h"

namespace oru::tool {

namespace fs = std::filesystem;

std::FILE* OpenInput(std::string const& path) {
  if (path == "-") return stdin;
  std::error_code error;
  const auto status = fs::status(fs::u8path(path), error);
  if (error)
    throw Failure(path + ": " +
                  (status.type() == fs::file_type::not_found
                       ? std::string("No such file or directory")
                       : error.message()));
  if (fs::is_directory(status)) throw Failure(path + ": Is a directory");
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) throw Failure(path + ": " + std::strerror(errno));
  return file;
}

uint64_t InputSize(std::string const& path) {
  std::error_code error;
  if (path == "-" || !fs::is_regular_file(fs::u8path(path), error)) return 0;
  const uintmax_t size = fs::file_size(fs::u8path(path), error);
  return error ? 0 : static_cast<uint64_t>(size);
}

void CloseInput(std::FILE* file) {
  if (file != nullptr && file != stdin) std::fclose(file);
}

void WriteOut(void const* data, std::size_t size) {
  if (size != 0 && std::fwrite(data, 1, size, stdout) != size) {
    throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}

void WriteFileAtomically(std::string const& path, std::string const& bytes) {
  const fs::path target = fs::u8path(path);
  std::error_code error;
  if (fs::is_directory(target, error)) throw Failure(path + ": Is a directory");
  // A name beside the target, so that the rename stays on one file system.
  fs::path scratch;
  std::FILE* file = nullptr;
  for (int attempt = 0; attempt < 100 && file == nullptr; ++attempt) {
    scratch = target;
    scratch += ".oru-tmp" + std::to_string(attempt);
    if (fs::exists(fs::symlink_status(scratch, error))) continue;
    file = std::fopen(scratch.string().c_str(), "wb");
    if (file == nullptr) throw Failure(path + ": " + std::strerror(errno));
  }
  if (file == nullptr) throw Failure(path + ": no free temporary name beside it");
  const bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  const int writeErrno = errno;
  const bool closed = std::fclose(file) == 0;
  if (!written || !closed) {
    fs::remove(scratch, error);
    throw Failure(path + ": " + std::strerror(written ? errno : writeErrno));
  }
  fs::rename(scratch, target, error);
  if (error) {
    fs::remove(scratch, error);
    throw Failure(path + ": " + error.message());
  }
}

std::string Printable(std::string const& text) {
  std::string out;
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '\n') {
      out += "\\n";
    } else if (c == '\t') {
      out += "\\t";
    } else if (u < 0x20 || u == 0x7f) {
      const char* digits = "0123456789abcdef";
      out += "\\x";
      out += digits[u >> 4];
      out += digits[u & 15];
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace oru::tool
