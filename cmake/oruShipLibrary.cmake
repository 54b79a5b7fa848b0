# oru_ship_library(<target>)
#
# What every library the project ships gets, in one call: the project's
# version and the SONAME taken from its major version (liboru.so.1.0.0 with
# SONAME liboru.so.1), hidden visibility, the export rules of
# cmake/oru_exports.map on ELF shared libraries, and install rules in the
# export set oruTargets split into package components:
#   runtime  the shared library and its SONAME link (Debian package liboru<N>)
#   dev      the liboru.so link, static archives and import libraries
#            (liboru-dev, which also takes the headers and the CMake and
#            pkg-config files)
# Used for oru, its static companion oru_static and the network library.
set(ORU_EXPORTS_MAP ${CMAKE_CURRENT_LIST_DIR}/oru_exports.map)

function(oru_ship_library target)
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    POSITION_INDEPENDENT_CODE ON)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "SHARED_LIBRARY" AND NOT WIN32 AND NOT APPLE)
    target_link_options(${target} PRIVATE "LINKER:--version-script=${ORU_EXPORTS_MAP}")
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${ORU_EXPORTS_MAP})
  endif()
  install(TARGETS ${target} EXPORT oruTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
endfunction()
