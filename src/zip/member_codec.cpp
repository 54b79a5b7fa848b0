#include "zip/member_codec.h"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <new>

#if ORU_HAVE_LIBDEFLATE
#include <libdeflate.h>
#endif

namespace oru::detail {

namespace {

#if ORU_HAVE_LIBDEFLATE
// One decompressor per thread: allocating it costs about as much as
// inflating a small member.
libdeflate_decompressor* ThreadDecompressor() {
  struct Holder {
    libdeflate_decompressor* d = libdeflate_alloc_decompressor();
    ~Holder() { libdeflate_free_decompressor(d); }
  };
  thread_local Holder holder;
  return holder.d;
}
#endif

}  // namespace

bool InflateMemberZlib(const InputPieces& next, unsigned char* out, uint64_t size) {
  z_stream stream{};
  if (inflateInit2(&stream, -MAX_WBITS) != Z_OK) return false;
  struct End {
    z_stream* s;
    ~End() { inflateEnd(s); }
  } end{&stream};
  uint64_t done = 0;
  while (done < size) {
    if (stream.avail_in == 0) {
      const unsigned char* piece = nullptr;
      uint64_t n = 0;
      if (!next(piece, n) || n == 0) return false;  // the data ends before the member does
      stream.next_in = const_cast<unsigned char*>(piece);
      stream.avail_in = static_cast<uInt>(std::min<uint64_t>(n, UINT_MAX));
    }
    stream.next_out = out + done;
    stream.avail_out = static_cast<uInt>(std::min<uint64_t>(size - done, UINT_MAX));
    const uInt room = stream.avail_out;
    const int rc = inflate(&stream, Z_NO_FLUSH);
    done += room - stream.avail_out;
    if (rc == Z_STREAM_END) break;
    if (rc != Z_OK && (rc != Z_BUF_ERROR || stream.avail_in != 0)) return false;
  }
  return done == size;
}

bool InflateMemberZlib(const unsigned char* in, uint64_t packed, unsigned char* out,
                       uint64_t size) {
  uint64_t fed = 0;
  return InflateMemberZlib(
      [&](const unsigned char*& piece, uint64_t& n) {
        piece = in + fed;
        n = std::min<uint64_t>(packed - fed, UINT_MAX);
        fed += n;
        return true;
      },
      out, size);
}

bool InflateMember(const unsigned char* in, uint64_t packed, unsigned char* out, uint64_t size) {
#if ORU_HAVE_LIBDEFLATE
  if (libdeflate_decompressor* d = ThreadDecompressor()) {
    size_t produced = 0;
    const libdeflate_result rc = libdeflate_deflate_decompress(
        d, in, static_cast<size_t>(packed), out, static_cast<size_t>(size), &produced);
    if (rc == LIBDEFLATE_SUCCESS && produced == size) return true;
  }
#endif
  return InflateMemberZlib(in, packed, out, size);
}

uint32_t Crc32(const unsigned char* data, uint64_t size) {
#if ORU_HAVE_LIBDEFLATE
  return libdeflate_crc32(0, data, static_cast<size_t>(size));
#else
  return static_cast<uint32_t>(crc32_z(0, data, static_cast<z_size_t>(size)));
#endif
}

bool DeflateMember(const unsigned char* in, uint64_t size, int level, std::string* out) {
  if (level < 1 || level > 9) level = 6;
#if ORU_HAVE_LIBDEFLATE
  libdeflate_compressor* c = libdeflate_alloc_compressor(level);
  if (c == nullptr) return false;
  struct Free {
    libdeflate_compressor* c;
    ~Free() { libdeflate_free_compressor(c); }
  } free{c};
  const size_t bound = libdeflate_deflate_compress_bound(c, static_cast<size_t>(size));
  const size_t start = out->size();
  try {
    out->resize(start + bound);
  } catch (const std::bad_alloc&) {
    return false;
  }
  const size_t n =
      libdeflate_deflate_compress(c, in, static_cast<size_t>(size), out->data() + start, bound);
  out->resize(start + n);
  return n != 0;
#else
  z_stream z{};
  if (deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) return false;
  struct End {
    z_stream* s;
    ~End() { deflateEnd(s); }
  } end{&z};
  const size_t start = out->size();
  try {
    out->resize(start + deflateBound(&z, static_cast<uLong>(size)));
  } catch (const std::bad_alloc&) {
    return false;
  }
  z.next_in = const_cast<unsigned char*>(in);
  z.avail_in = static_cast<uInt>(size);
  z.next_out = reinterpret_cast<unsigned char*>(out->data() + start);
  z.avail_out = static_cast<uInt>(out->size() - start);
  const int rc = deflate(&z, Z_FINISH);
  out->resize(start + z.total_out);
  return rc == Z_STREAM_END;
#endif
}

}  // namespace oru::detail
