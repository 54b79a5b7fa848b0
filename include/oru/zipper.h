// Zipper: collects bytes in memory and deflates the sections you mark.
//
// Bytes go into 16 KiB blocks. Between StartCompressedSection and
// EndCompressedSection they are deflated on the way in, behind the ten-byte
// gzip member header 1F 8B 08 00 00 00 00 00 00 00. No CRC-32 and no length
// trailer are written after a section: a reader inflates the raw deflate
// data that follows the ten header bytes. Plain bytes may follow a section.
//
//   oru::Zipper z;
//   z.AddBytes(header, sizeof header);   // plain
//   z.StartCompressedSection(6);
//   z.AddBytes(payload, n);              // deflated
//   z.EndCompressedSection();
//   std::shared_ptr<oru::DataSource> out = z.GetDSForBuffer();
//
// Levels: -1 and 0..9 as zlib takes them; any other value means the default
// (-1). Failures are results (false, or a null source); nothing is thrown
// for data errors.
//
// Ownership: the Zipper owns its blocks; GetDSForBuffer copies them into a
// new InMemoryDataSource and the Zipper can go on writing.
//
// Threading: not safe for concurrent use.
#pragma once

#include <cstdint>
#include <list>
#include <memory>

#include "oru/data_source.h"
#include "oru/export.h"

namespace oru {

class ORU_API Zipper {
public:
  // One 16 KiB output block and its fill count.
  struct Buffer {
    static constexpr uint64_t CAPACITY = 16384;
    unsigned char data[CAPACITY];
    uint64_t used = 0;
  };

  Zipper();
  virtual ~Zipper();
  Zipper(const Zipper&) = delete;
  Zipper& operator=(const Zipper&) = delete;

  /// Writes the gzip header and starts deflating; false when deflate cannot
  /// be initialised or a section is already open.
  bool StartCompressedSection(int level);
  /// Appends bytes (deflated inside a section); false when deflate fails.
  bool AddBytes(const unsigned char* data, uint64_t size);
  /// Finishes the section; true when the deflate stream ended cleanly.
  bool EndCompressedSection();
  /// Everything written so far as one source; null inside a section.
  std::shared_ptr<DataSource> GetDSForBuffer();

private:
  struct Stream;
  struct Staging;

  bool FlushBuffer(const unsigned char* data, uint64_t size, bool finish);
  bool FlushBuffer(bool finish);
  bool AddPlainBytes(const unsigned char* data, uint64_t size);
  void NextBlock();

  std::unique_ptr<Stream> stream;
  std::unique_ptr<Staging> staging;
  std::shared_ptr<Buffer> current;
  std::list<std::shared_ptr<Buffer>> full;
  bool compressing = false;
};

}  // namespace oru
