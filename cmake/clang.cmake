# For presets that need clang: the compiler in CXX if that is a clang, else the system's.
if(NOT CMAKE_CXX_COMPILER)
  if("$ENV{CXX}" MATCHES "clang")
    set(CMAKE_CXX_COMPILER $ENV{CXX})
  else()
    find_program(CMAKE_CXX_COMPILER REQUIRED
      NAMES clang++ clang++-19 clang++-18 clang++-17 clang++-16 clang++-15 clang++-14)
  endif()
endif()
# The C of examples and tests, by the compiler of the same version.
if(NOT CMAKE_C_COMPILER)
  string(REPLACE "clang++" "clang" CMAKE_C_COMPILER "${CMAKE_CXX_COMPILER}")
endif()
