# What `cmake --install` lays down, and the packages that cpack makes of it (scripts/package).
#
#   bin/symforge                                    the program
#   lib/libsymforge-resolver.a                      resolver, SYMB format and SYMB writer in one library
#   include/symforge/                               the folder of headers that a host gives to its compiler:
#     google_breakpad/processor/*.h, common/symb.h  its includes are written like that
#   lib/cmake/symforge, lib/pkgconfig/symforge.pc   how a host finds both
#   share/...                                       manual page, documents, completion for bash
include(CMakePackageConfigHelpers)

# The modules of the repository are libraries of their own; hosts get one.
add_library(symforge_resolver STATIC)
foreach(module IN ITEMS base tokenize symbol_text symb processor symb_writer)
  target_sources(symforge_resolver PRIVATE $<TARGET_OBJECTS:symforge_${module}>)
endforeach()
set_target_properties(symforge_resolver PROPERTIES
  OUTPUT_NAME symforge-resolver EXPORT_NAME resolver LINKER_LANGUAGE CXX)
target_compile_features(symforge_resolver INTERFACE cxx_std_17)
set(header_root ${CMAKE_INSTALL_INCLUDEDIR}/symforge)
# A host that takes this project in sees the same headers as one that uses an installation.
set(build_headers ${PROJECT_BINARY_DIR}/include)
file(MAKE_DIRECTORY ${build_headers}/google_breakpad ${build_headers}/common)
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/google_breakpad/processor
  ${build_headers}/google_breakpad/processor SYMBOLIC)
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/common/symb.h ${build_headers}/common/symb.h SYMBOLIC)
target_include_directories(symforge_resolver INTERFACE
  $<BUILD_INTERFACE:${build_headers}> $<INSTALL_INTERFACE:${header_root}>)
add_library(symforge::resolver ALIAS symforge_resolver)

if(NOT SYMFORGE_INSTALL)
  return()
endif()

# ---- Files, in two components that become two Debian packages ---------------------------------------
install(TARGETS symforge RUNTIME COMPONENT program)
install(FILES docs/symforge.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
install(FILES completions/symforge.bash RENAME symforge
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT program)
file(GLOB documents CONFIGURE_DEPENDS docs/*.md)
install(FILES README.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT program)
install(FILES ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT program)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/symforge)
install(TARGETS symforge_resolver EXPORT symforge ARCHIVE COMPONENT development)
install(DIRECTORY google_breakpad/processor DESTINATION ${header_root}/google_breakpad
  COMPONENT development FILES_MATCHING PATTERN "*.h")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.cc")
install(FILES common/symb.h DESTINATION ${header_root}/common COMPONENT development)

write_basic_package_version_file(${PROJECT_BINARY_DIR}/symforge-config-version.cmake
  COMPATIBILITY SameMajorVersion)
# The export set has no dependencies, so it is the whole configuration file.
install(EXPORT symforge FILE symforge-config.cmake NAMESPACE symforge::
  DESTINATION ${package_dir} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/symforge-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

# The prefix is given from the place of the file, so that an unpacked archive works anywhere.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pc /prefix/${pc_dir} /prefix)
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
configure_file(cmake/symforge.pc.in ${PROJECT_BINARY_DIR}/symforge.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/symforge.pc DESTINATION ${pc_dir} COMPONENT development)

# ---- Packages ------------------------------------------------------------------------------------
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_CONTACT "The symforge developers <symforge@localhost>")
set(CPACK_PACKAGE_VENDOR symforge)
set(CPACK_SYSTEM_NAME linux-x86_64)
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_THREADS 0)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_NAME symforge)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PROGRAM_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libsymforge-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION
  "Turns PDB files and PE images into Breakpad text symbol files and SYMB,\na binary format that is searched in place.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Resolver library of symforge, static, with its headers.\nTells a crash-processing host the function, source line, inline frames\nand unwinding rules of a code address.")
include(CPack)
