// TempFile: the file a download is written to before it takes its real name.
// Created exclusively beside the final path (same directory, so the last step
// is one rename), removed unless Commit succeeds. Used by one thread at a
// time.
#pragma once

#include <cstddef>
#include <string>

namespace oru::net {

class TempFile {
public:
  TempFile() = default;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  /// Removes the file when it was not committed.
  ~TempFile() { Discard(); }

  /// Creates a new, empty, owner-only file in the directory of `finalPath`
  /// under a name nobody else holds. False (with Error() set) on failure.
  bool Create(std::string const& finalPath);
  /// Appends `size` bytes. False (with Error() set) when they cannot all be
  /// written.
  bool Write(char const* data, size_t size);
  /// Closes the file and renames it to `finalPath`, replacing what is
  /// there. False (with Error() set, and the file removed) on failure.
  bool Commit(std::string const& finalPath);
  /// Closes and removes the file; does nothing when there is none.
  void Discard();

  std::string const& Path() const { return path; }
  /// One line saying what failed last.
  std::string const& Error() const { return error; }

private:
  void Fail(char const* what, std::string const& name, int err);

  int fd = -1;
  std::string path;
  std::string error;
};

/// Creates an empty file "<dir>/<prefix>XXXXXX" exclusively and returns its
/// name, or "" when it cannot (then `error` says why). It reserves a unique
/// name another step will write or replace.
std::string ReserveUniqueFile(std::string const& dir, std::string const& prefix,
                              std::string& error);

}  // namespace oru::net
