# Defines the imported target oru_minizip: the minizip unz*/zip* interface
# (with the 64-bit file-function tables) and the zlib it needs.
#
# Natively it comes from pkg-config (Debian: libminizip-dev). For the Windows
# cross build there is no package: scripts/build-minizip-mingw builds a
# static libminizip.a into a prefix given by the environment variable (or
# cache variable) ORU_MINGW_PREFIX, which cmake/mingw-w64.cmake also adds to
# the find root path. Used by the build and by the installed package config
# of a static liboru. Expects ZLIB::ZLIB to exist already.
if(TARGET oru_minizip)
  return()
endif()

if(WIN32 AND CMAKE_CROSSCOMPILING)
  set(_oru_mingw_prefix "${ORU_MINGW_PREFIX}")
  if(NOT _oru_mingw_prefix)
    set(_oru_mingw_prefix "$ENV{ORU_MINGW_PREFIX}")
  endif()
  find_path(ORU_MINIZIP_INCLUDE_DIR minizip/unzip.h
    HINTS ${_oru_mingw_prefix}/include)
  find_library(ORU_MINIZIP_LIBRARY NAMES libminizip.a minizip
    HINTS ${_oru_mingw_prefix}/lib)
  unset(_oru_mingw_prefix)
  if(NOT ORU_MINIZIP_INCLUDE_DIR OR NOT ORU_MINIZIP_LIBRARY)
    message(FATAL_ERROR
      "minizip for Windows not found. Run scripts/build-minizip-mingw and "
      "set the environment variable ORU_MINGW_PREFIX to the prefix it prints "
      "(scripts/test-windows does both).")
  endif()
  add_library(oru_minizip STATIC IMPORTED)
  set_target_properties(oru_minizip PROPERTIES
    IMPORTED_LOCATION "${ORU_MINIZIP_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${ORU_MINIZIP_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES ZLIB::ZLIB)
else()
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(MINIZIP REQUIRED IMPORTED_TARGET minizip)
  add_library(oru_minizip INTERFACE IMPORTED)
  set_target_properties(oru_minizip PROPERTIES
    INTERFACE_LINK_LIBRARIES "PkgConfig::MINIZIP;ZLIB::ZLIB")
endif()
