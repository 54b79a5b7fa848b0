// Internal: the 64-bit file-function table through which minizip reads and
// writes our sources and blocks instead of files.
#pragma once

#include <minizip/ioapi.h>

namespace oru::detail {

// A table whose entries are the static members Open, Read, Write, Tell, Seek,
// Close and TestError of `Bridge`, with `self` as minizip's opaque pointer.
template <class Bridge>
zlib_filefunc64_def MinizipFunctions(Bridge* self) {
  zlib_filefunc64_def functions{};
  functions.zopen64_file = &Bridge::Open;
  functions.zread_file = &Bridge::Read;
  functions.zwrite_file = &Bridge::Write;
  functions.ztell64_file = &Bridge::Tell;
  functions.zseek64_file = &Bridge::Seek;
  functions.zclose_file = &Bridge::Close;
  functions.zerror_file = &Bridge::TestError;
  functions.opaque = self;
  return functions;
}

}  // namespace oru::detail
