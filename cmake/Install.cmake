# The files of `cmake --install`, and the packages that cpack makes of them (scripts/package).
#
#   bin/symforge                                    the program
#   lib/libsymforge.so.1                            the C interface: symforge::symforge
#   include/symforge/symforge.h                     its header, included as <symforge/symforge.h>
#   lib/libsymforge-resolver.a                      resolver, SYMB format and SYMB writer in one library
#   include/symforge/                               include folder of its hosts:
#     google_breakpad/processor/*.h, common/symb.h  its includes are written like that
#   lib/cmake/symforge                              how a host finds these with CMake
#   lib/pkgconfig/{libsymforge,symforge}.pc         and with pkg-config: the first is the C interface
#   share/...                                       manual page, documents, completion for bash
#
# A host reads the version from common/symforge_version.h, which is made here.
include(CMakePackageConfigHelpers)

# Each module of the repository is a library; hosts get a single one.
add_library(symforge_resolver STATIC)
foreach(module IN ITEMS base tokenize symbol_text symb processor symb_writer)
  target_sources(symforge_resolver PRIVATE $<TARGET_OBJECTS:symforge_${module}>)
endforeach()
set_target_properties(symforge_resolver PROPERTIES
  OUTPUT_NAME symforge-resolver EXPORT_NAME resolver LINKER_LANGUAGE CXX)
target_compile_features(symforge_resolver INTERFACE cxx_std_17)
set(header_root ${CMAKE_INSTALL_INCLUDEDIR}/symforge)
# A host with this project as a subproject sees the same headers as one that uses an installation.
set(build_headers ${PROJECT_BINARY_DIR}/include)
file(MAKE_DIRECTORY ${build_headers}/google_breakpad ${build_headers}/common)
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/google_breakpad/processor
  ${build_headers}/google_breakpad/processor SYMBOLIC)
file(CREATE_LINK ${PROJECT_SOURCE_DIR}/common/symb.h ${build_headers}/common/symb.h SYMBOLIC)
set(version_header ${build_headers}/common/symforge_version.h)
configure_file(common/symforge_version.h.in ${version_header} @ONLY)
target_include_directories(symforge_resolver INTERFACE
  $<BUILD_INTERFACE:${build_headers}> $<INSTALL_INTERFACE:${header_root}>)
add_library(symforge::resolver ALIAS symforge_resolver)

if(NOT SYMFORGE_INSTALL)
  return()
endif()

# (there is no public address yet)
set(contact "The symforge developers <symforge@symforge.invalid>")

# compressed(FILE OUTPUT): makes OUTPUT in the build folder, by gzip without a name or a time in it.
function(compressed file output)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  execute_process(COMMAND gzip -9nc ${file} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    OUTPUT_FILE ${PROJECT_BINARY_DIR}/${output} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# ---- Files, in three components that become three Debian packages -----------------------------------
install(TARGETS symforge RUNTIME COMPONENT program)
compressed(docs/symforge.1 symforge.1.gz)
install(FILES ${PROJECT_BINARY_DIR}/symforge.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT program)
install(FILES completions/symforge.bash RENAME symforge
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT program)
# The documents, with links adapted to the installed tree.
file(RELATIVE_PATH from_documents /${CMAKE_INSTALL_DOCDIR} /)
file(GLOB documents RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS *.md docs/*.md)
foreach(document IN LISTS documents)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${document})
  file(READ ${document} text)
  string(REPLACE "](docs/symforge.1)" "](${from_documents}${CMAKE_INSTALL_MANDIR}/man1/symforge.1.gz)" text "${text}")
  foreach(up IN ITEMS "" "../")  # of the documents here and in docs
    string(REPLACE "](${up}google_breakpad/processor)"
      "](${up}${from_documents}${header_root}/google_breakpad/processor)" text "${text}")
    string(REPLACE "](${up}symforge/symforge.h)" "](${up}${from_documents}${header_root}/symforge.h)" text "${text}")
  endforeach()
  file(CONFIGURE OUTPUT documents/${document} CONTENT "@text@" @ONLY)
endforeach()
install(DIRECTORY ${PROJECT_BINARY_DIR}/documents/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT program
  FILES_MATCHING PATTERN "*.md")
install(DIRECTORY docs/performance DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs COMPONENT program
  FILES_MATCHING PATTERN "*.svg")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT program
  FILES_MATCHING PATTERN "*.cc" PATTERN "*.c" PATTERN "*.h" PATTERN "*.py" PATTERN "service/*")

# Files that Debian's policy requires in every package.
string(TIMESTAMP changed "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(CONFIGURE OUTPUT changelog CONTENT "symforge (@PROJECT_VERSION@) unstable; urgency=medium

  * See CHANGELOG.md.

 -- @contact@  @changed@
" @ONLY)
compressed(${PROJECT_BINARY_DIR}/changelog changelog.gz)
foreach(package IN ITEMS "program symforge" "library libsymforge1" "development libsymforge-dev")
  separate_arguments(package)
  list(POP_FRONT package component name)
  install(FILES ${PROJECT_BINARY_DIR}/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
  install(FILES COPYRIGHT RENAME copyright DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${component})
endforeach()

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/symforge)
install(TARGETS symforge_resolver EXPORT symforge ARCHIVE COMPONENT development)
install(TARGETS symforge_shared EXPORT symforge
  LIBRARY COMPONENT library NAMELINK_COMPONENT development)
install(FILES symforge/symforge.h DESTINATION ${header_root} COMPONENT development)
install(DIRECTORY google_breakpad/processor DESTINATION ${header_root}/google_breakpad
  COMPONENT development FILES_MATCHING PATTERN "*.h")
install(FILES common/symb.h ${version_header} DESTINATION ${header_root}/common COMPONENT development)

# stripped(COMPONENT FILE OPTION...): where a target is installed stripped, as in a package, strips FILE of
# what CMake leaves: debug information in a static library, and the name of the compiler.
function(stripped component file)
  install(CODE "if(CMAKE_INSTALL_DO_STRIP)
  execute_process(COMMAND \"${CMAKE_STRIP}\" ${ARGN} --remove-section=.comment
    \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${file}\" COMMAND_ERROR_IS_FATAL ANY)
endif()" COMPONENT ${component})
endfunction()
stripped(program ${CMAKE_INSTALL_BINDIR}/$<TARGET_FILE_NAME:symforge>)
stripped(library ${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:symforge_shared>)
stripped(development ${CMAKE_INSTALL_LIBDIR}/$<TARGET_FILE_NAME:symforge_resolver>
  --strip-debug --enable-deterministic-archives)

write_basic_package_version_file(${PROJECT_BINARY_DIR}/symforge-config-version.cmake
  COMPATIBILITY SameMajorVersion)
# The export set has no dependencies, so it is the whole configuration file.
install(EXPORT symforge FILE symforge-config.cmake NAMESPACE symforge::
  DESTINATION ${package_dir} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/symforge-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

# The prefix is relative to the location of the file, so that an unpacked archive works anywhere.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pc /prefix/${pc_dir} /prefix)
string(REGEX REPLACE "/$" "" prefix_from_pc ${prefix_from_pc})
foreach(name IN ITEMS symforge libsymforge)
  configure_file(cmake/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${pc_dir} COMPONENT development)
endforeach()

# ---- Packages ------------------------------------------------------------------------------------
set(CPACK_GENERATOR DEB TGZ)
set(CPACK_PACKAGE_CONTACT "${contact}")
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
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libsymforge1)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")  # names are only added until the major number changes
file(CONFIGURE OUTPUT triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libsymforge-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libsymforge1 (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PROGRAM_DESCRIPTION
  "Turns PDB files and PE images into Breakpad text symbol files and SYMB,\na binary format that is searched in place.")
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION
  "Symbol lookups for programs in any language.\nTells a crash-processing host the function, source line, inline frames\nand unwinding rules of a code address, and keeps a store of symbol files.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Development files of symforge's libraries.\nThe header of the C interface, and the static resolver library for hosts\nin C++ with its headers.")
include(CPack)
