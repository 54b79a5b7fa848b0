# Debian packages, one per install component (cpack -G DEB; scripts/package
# builds them):
#   liboru<major>  component runtime: the shared libraries. Named after the
#                  SONAME, as Debian asks of library packages, so that two
#                  ABI versions can be installed side by side.
#   liboru-dev     component dev: headers, the CMake package, oru.pc, the
#                  liboru.so link and the static liboru.a.
#   oru-tools      component tools: the command-line tool, when it is built.
# Depends: lines come from dpkg-shlibdeps; the packages of the project itself
# are named explicitly with their exact version.
set(CPACK_PACKAGE_NAME oru)
set(CPACK_PACKAGE_VENDOR "liboru developers")
set(ORU_PACKAGE_MAINTAINER "liboru developers <liboru-dev@lists.invalid>"
  CACHE STRING "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${ORU_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Data sources, archives, caches and threading plumbing for desktop applications")
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The project's own libraries are not installed while packaging:
# dpkg-shlibdeps finds them in the build tree, as private libraries, and
# leaves them to the explicit Depends below.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(ORU_RUNTIME_PACKAGE liboru${PROJECT_VERSION_MAJOR})
set(ORU_EXACT_RUNTIME "${ORU_RUNTIME_PACKAGE} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ORU_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# CPack puts the summary above each package's text.
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
  "liboru gives applications their data wherever it lies (memory, files,\n\
gzip/zlib streams, sparse ranges, ZIP archives, an on-disk download cache)\n\
and the plumbing round it: worker threads and a task pool, interned strings,\n\
encoding conversion, a JSON writer, SHA-1/Base64 and heap tracing.\n\
This package holds the shared libraries.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME liboru-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# liboru.a passes minizip, libdeflate and zlib on to whoever links it, and
# the CMake package finds them (minizip through pkg-config) when it is loaded.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${ORU_EXACT_RUNTIME}, libminizip-dev, zlib1g-dev, pkg-config")
if(ORU_WITH_LIBDEFLATE)
  string(APPEND CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ", libdeflate-dev")
endif()
set(CPACK_DEBIAN_DEV_DESCRIPTION
  "The development files: headers, the CMake package (find_package(oru):\n\
oru::oru and the static oru::oru_static), the pkg-config file oru.pc and\n\
the static library.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME oru-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${ORU_EXACT_RUNTIME}")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
  "The oru command looks into the files liboru's users meet: ZIP archives,\n\
the download cache, heap traces and digests.")

# A package for each component that has something to install: oru-tools
# appears when tools/ installs a program.
get_cmake_property(ORU_INSTALL_COMPONENTS COMPONENTS)
set(CPACK_COMPONENTS_ALL "")
foreach(component IN ITEMS runtime dev tools)
  if(component IN_LIST ORU_INSTALL_COMPONENTS)
    list(APPEND CPACK_COMPONENTS_ALL ${component})
  endif()
endforeach()
list(REMOVE_ITEM ORU_INSTALL_COMPONENTS runtime dev tools)
if(ORU_INSTALL_COMPONENTS)
  message(WARNING "install rules outside the packaged components: ${ORU_INSTALL_COMPONENTS}")
endif()

include(CPack)
