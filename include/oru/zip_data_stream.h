// ZipDataStream: a ZIP archive held by any DataSource, read as a collection
// of member sources addressed by URL.
//
// Every archive gets a process-unique id, "zipdatastream://<n>". A member
// can then be reached from anywhere in the process through the URL
// "zipdatastream://<n>/<path inside the archive>", without holding the
// ZipDataStream, for as long as the archive is alive.
//
//   auto zip = oru::ZipDataStream::Create(oru::FileDataSource::Create("scene.zip"));
//   if (zip->IsValid()) {
//     std::string url = zip->GetUniqueId() + "/models/Cube.bin";
//     auto member = oru::ZipDataStream::FindDataSource(url);  // or zip->GetDataSourceForFile(...)
//     oru::DataStream in(member);                              // read it like any source
//   }
//
// Members are inflated eagerly and whole into a new InMemoryDataSource on
// every request; two requests give two independent copies. Lookup is ASCII
// case-insensitive and takes "\" and "/" alike, in requests and in stored
// names: every listed name opens. The central directory is read once, whole,
// on the first lookup or listing (which members overlap can only be told
// from all of them). Zip64 archives and members are read, as are archives
// with bytes in front (self-extractors), with a comment of up to 65,535
// bytes, or with no members at all.
//
// Every member served has been checked against its CRC-32, so a member is
// either exact or refused: null, and one line on the standard error stream
//   Cannot read ZIP member "<name>" of "zipdatastream://<n>" (<reason>).
// where the reason is one of: encrypted; compression method <m> (only
// stored and deflated are read); CRC-32 mismatch; corrupt data (the data
// cannot be inflated, or ends early); data cut short (the archive ends before
// the member's data does); no local header; declared size impossible for its
// compressed data (more than they hold when stored, more than 1032 times
// when deflated); sizes missing from its Zip64 extra field; overlaps another
// member, or overlaps the central directory (its local header lies inside
// the bytes of a member located before it, or it is not wholly before the
// directory: reading every member of such an archive would inflate the
// same bytes over and over); not enough memory. A member whose data is
// corrupt or cut short is refused, not served with a zero tail. Refused
// members are still listed.
//
// Other hostile archives never crash the reader either:
// - not a ZIP: IsValid() is false and every lookup yields null;
// - a directory cut off or malformed part-way: the entries before the
//   damage are found, the rest are misses;
// - duplicate names: the first entry of the name wins;
// - names longer than 2048 bytes: known by their first 2048 bytes;
// - a source that fails or throws mid-read: the read counts as an error.
// ListContents() of an invalid archive writes
//   Failed to get ToC for ZIP file "zipdatastream://<n>"
// to the standard error stream and returns false.
//
// Ownership: the archive shares its source with the caller and keeps it
// alive. The process-wide registry holds only weak pointers: a destroyed
// archive's URLs yield null.
//
// Threading: Create, FindDataStream and FindDataSource may be called from any
// thread at any time (the registry has its own lock). One ZipDataStream is
// not safe for concurrent use: serialise calls on the same archive.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "oru/data_source.h"
#include "oru/export.h"
#include "oru/string_span.h"

namespace oru {

class ORU_API ZipDataStream {
public:
  /// Opens the archive in `source` and registers it. Never fails: a source
  /// that is not a ZIP archive gives an archive with IsValid() false.
  static std::shared_ptr<ZipDataStream> Create(const std::shared_ptr<DataSource>& source);
  ~ZipDataStream();
  ZipDataStream(const ZipDataStream&) = delete;
  ZipDataStream& operator=(const ZipDataStream&) = delete;

  bool IsValid() const;
  /// "zipdatastream://" followed by a decimal number unique in the process.
  const std::string& GetUniqueId() const;
  /// The file name when the source is a FileDataSource, else empty.
  std::string GetZipFileName();
  /// A descriptive name for display: "_qd_zip://" + file name + "/" + member,
  /// or `member` alone when the file name is empty. Not a lookup URL.
  std::string ComponentUrl(BasicStringSpan<const char> member) const;
  /// Appends every member path, in directory order and stored case.
  bool ListContents(std::vector<std::string>* out);
  /// The member, inflated whole, or null when absent or unreadable.
  std::shared_ptr<DataSource> GetDataSourceForFile(BasicStringSpan<const char> member);
  /// The archive source's time stamp (all members share it).
  std::string GetTimeStamp(BasicStringSpan<const char> member) const;

  /// The member path inside a member URL; the argument unchanged when it is
  /// not one ("zipdatastream://7/" gives "", "zipdatastream://7" itself).
  static std::string ExtractFileName(BasicStringSpan<const char> url);
  /// The live archive registered under exactly `id`, or null.
  static std::shared_ptr<ZipDataStream> FindDataStream(BasicStringSpan<const char> id);
  /// The member named by a member URL, or null.
  static std::shared_ptr<DataSource> FindDataSource(BasicStringSpan<const char> url);

  struct Unzipper;

protected:
  explicit ZipDataStream(const std::shared_ptr<DataSource>& source);

private:
  std::unique_ptr<Unzipper> unzipper;
};

}  // namespace oru
