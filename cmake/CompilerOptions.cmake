# Flags that every target of the project gets, through the interface target symforge_options.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Warnings are errors, except as a subproject, whose host chooses the compiler. `cmake
# --compile-no-warning-as-error` builds with a newer compiler that has more warnings.
if(NOT DEFINED CMAKE_COMPILE_WARNING_AS_ERROR)
  set(CMAKE_COMPILE_WARNING_AS_ERROR ${PROJECT_IS_TOP_LEVEL})
endif()

# Assertions and the containers' range checks are part of the program's behaviour: a damaged file ends
# its own process instead of being read on. CMake's own build types define NDEBUG: it is removed from
# them, and a build that requests it is refused.
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()
foreach(language IN ITEMS C CXX)
  string(REPLACE "-O3 -DNDEBUG" "-O2" CMAKE_${language}_FLAGS_RELEASE "${CMAKE_${language}_FLAGS_RELEASE}")
  foreach(config IN ITEMS RELEASE MINSIZEREL RELWITHDEBINFO)
    string(REGEX REPLACE " *-DNDEBUG" "" CMAKE_${language}_FLAGS_${config} "${CMAKE_${language}_FLAGS_${config}}")
  endforeach()
endforeach()
string(TOUPPER "${CMAKE_BUILD_TYPE}" config)
get_directory_property(definitions COMPILE_DEFINITIONS)
get_directory_property(options COMPILE_OPTIONS)
if("${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${config}} ${definitions} ${options}" MATCHES "NDEBUG")
  message(FATAL_ERROR "symforge relies on its assertions and cannot be built with NDEBUG")
endif()

add_library(symforge_options INTERFACE)
target_include_directories(symforge_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/include)
target_compile_definitions(symforge_options INTERFACE _GLIBCXX_ASSERTIONS)
target_compile_options(symforge_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor> $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  # std::stable_sort() of libstdc++ 12 calls a deprecated function, which newer clangs report.
  "$<$<AND:$<CXX_COMPILER_ID:Clang>,$<VERSION_GREATER_EQUAL:$<CXX_COMPILER_VERSION>,15>>:-Wno-deprecated-declarations>"
  -UNDEBUG  # overrides a definition from elsewhere, such as a host's options
  # Paths in messages and debug information are relative to the root of the sources.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}=.
  -fstack-protector-strong -fstack-clash-protection -fcf-protection=full)

if(SYMFORGE_SANITIZE)
  target_compile_options(symforge_options INTERFACE
    -fsanitize=${SYMFORGE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(symforge_options INTERFACE -fsanitize=${SYMFORGE_SANITIZE})
  if(NOT SYMFORGE_FUZZERS)
    # More optimisation and debug information make instrumented code several times slower to compile.
    # This is enough for stack traces with lines.
    target_compile_options(symforge_options INTERFACE -Og -g1)
  endif()
else()
  # Some compilers define a lower level themselves.
  target_compile_options(symforge_options INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
endif()

# For tests and examples: without the checks that double the time to compile them. What they call has
# those.
add_library(symforge_fewer_checks INTERFACE)
if(SYMFORGE_SANITIZE MATCHES "undefined")
  target_compile_options(symforge_fewer_checks INTERFACE -fno-sanitize=vptr,null,alignment)
endif()

# For programs that tests start often: with the sanitizers' libraries linked statically, as clang links
# them by itself, they start in four fifths of the time. It is not for programs that load a library
# which uses the sanitizers as well.
add_library(symforge_static_sanitizers INTERFACE)
if(SYMFORGE_SANITIZE MATCHES "address" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_link_options(symforge_static_sanitizers INTERFACE -static-libasan -static-libubsan)
endif()

if(SYMFORGE_FUZZERS)
  target_compile_options(symforge_options INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(symforge_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

if(SYMFORGE_SANITIZE MATCHES "address" AND NOT SYMFORGE_FUZZERS)
  # The address sanitizer has thousands of addresses to relocate in a program: a third of its start,
  # which tests wait for some thousand times.
  target_link_options(symforge_options INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-no-pie>)
else()
  include(CheckPIESupported)
  check_pie_supported()
endif()
target_link_options(symforge_options INTERFACE -Wl,-z,relro,-z,now -Wl,--build-id)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # ccache caches precompiled headers only with these settings.
  set(CMAKE_CXX_COMPILER_LAUNCHER
    env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE_PROGRAM})
endif()
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fpch-preprocess>)
