# Defines the imported target oru_libdeflate when libdeflate is found
# (Debian: libdeflate-dev): ZIP members are then inflated, deflated and
# checked with it, about twice as fast as with zlib. Without it (the Windows
# cross build has no package) zlib does that work. Also included by the
# installed package config of a static liboru.
if(NOT TARGET oru_libdeflate)
  find_path(ORU_LIBDEFLATE_INCLUDE_DIR libdeflate.h)
  find_library(ORU_LIBDEFLATE_LIBRARY NAMES deflate)
  if(ORU_LIBDEFLATE_INCLUDE_DIR AND ORU_LIBDEFLATE_LIBRARY)
    add_library(oru_libdeflate UNKNOWN IMPORTED)
    set_target_properties(oru_libdeflate PROPERTIES
      IMPORTED_LOCATION "${ORU_LIBDEFLATE_LIBRARY}"
      INTERFACE_INCLUDE_DIRECTORIES "${ORU_LIBDEFLATE_INCLUDE_DIR}")
  endif()
endif()
