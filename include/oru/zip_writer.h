// ZipWriter: builds a ZIP archive in memory from named sources.
//
//   oru::ZipWriter writer;
//   writer.AddFile(oru::InMemoryDataSource::Create(std::string("hi"), false), "a/hello.txt");
//   writer.AddFile(pictureSource, "a/photo.jpg");   // stored: already compressed
//   std::shared_ptr<oru::DataSource> zip = writer.GetDSForBuffer();
//
// Members are deflated at the default level, except names whose extension
// (after the last ".", any case) is one of qdz, edz, ol, qds, jpg, jpeg, png,
// tga: those are stored uncompressed (method 0). Members get minizip's
// default time stamp and attributes.
//
// AddFile refuses (false) a null source, an empty name, a name longer than
// 65,535 bytes and a member of 4 GiB - 1 bytes or more, which the 32-bit ZIP
// fields cannot hold (all ones there marks a ZIP64 field). The archive returned by GetDSForBuffer
// ends with zero bytes after the end-of-central-directory record (its length is a sum of 4
// KiB-or-larger block sizes); ZIP readers find the record by searching backwards, and the padding
// is kept (callers that store archives expect these lengths). After GetDSForBuffer the writer is
// empty and the next AddFile starts a new archive.
//
// Threading: not safe for concurrent use.
#pragma once

#include <memory>

#include "oru/data_source.h"
#include "oru/export.h"
#include "oru/string_span.h"

namespace oru {

class ORU_API ZipWriter {
public:
  ZipWriter();
  ~ZipWriter();
  ZipWriter(const ZipWriter&) = delete;
  ZipWriter& operator=(const ZipWriter&) = delete;

  /// Adds one member with the whole content of `source`.
  bool AddFile(const std::shared_ptr<DataSource>& source, BasicStringSpan<char const> name);
  /// Closes the archive and returns it; an empty source if nothing was added.
  std::shared_ptr<DataSource> GetDSForBuffer();

  struct Impl;

private:
  std::unique_ptr<Impl> impl;
};

}  // namespace oru
