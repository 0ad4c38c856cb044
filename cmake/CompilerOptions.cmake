# Flags that every target of the project gets, through the interface target symforge_options.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Warnings are errors here, but not in a project that takes this one in with a compiler of its own; and
# `cmake --compile-no-warning-as-error` builds with a newer compiler that has learnt to warn of more.
if(NOT DEFINED CMAKE_COMPILE_WARNING_AS_ERROR)
  set(CMAKE_COMPILE_WARNING_AS_ERROR ${PROJECT_IS_TOP_LEVEL})
endif()

# Assertions and the containers' range checks are part of the program's behaviour:
# a damaged file ends its own process instead of reading on. So no build type defines NDEBUG.
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g")
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

add_library(symforge_options INTERFACE)
target_include_directories(symforge_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR})
target_compile_definitions(symforge_options INTERFACE _GLIBCXX_ASSERTIONS)
target_compile_options(symforge_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  -fstack-protector-strong -fstack-clash-protection)

if(SYMFORGE_SANITIZE)
  target_compile_options(symforge_options INTERFACE
    -fsanitize=${SYMFORGE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(symforge_options INTERFACE -fsanitize=${SYMFORGE_SANITIZE})
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
  target_compile_definitions(symforge_options INTERFACE _FORTIFY_SOURCE=2)
endif()

if(SYMFORGE_FUZZERS)
  target_compile_options(symforge_options INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(symforge_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

include(CheckPIESupported)
check_pie_supported()
target_link_options(symforge_options INTERFACE -Wl,-z,relro,-z,now)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()
