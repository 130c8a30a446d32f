# Compiler and linker flags of everything that is built here.
add_library(vrox_flags INTERFACE)

# Failures travel as values and nothing is looked up by type; the daemon's own
# code is built without either mechanism, which also keeps the program small.
target_compile_options(vrox_flags INTERFACE -fno-exceptions -fno-rtti
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wnon-virtual-dtor -Wundef -Wformat=2 -Wimplicit-fallthrough)
if(VROX_WERROR)
  target_compile_options(vrox_flags INTERFACE -Werror)
endif()

# Spans, views and arrays check their bounds everywhere, in what users run too.
target_compile_definitions(vrox_flags INTERFACE _GLIBCXX_ASSERTIONS)

set(VROX_EXECUTABLE -pie)
if(VROX_STATIC)
  # Not every C library for cross building has the start code of a static program
  # that may lie anywhere.
  include(CheckLinkerFlag)
  check_linker_flag(CXX -static-pie VROX_STATIC_PIE)
  set(VROX_EXECUTABLE -static -no-pie)
  if(VROX_STATIC_PIE)
    set(VROX_EXECUTABLE -static-pie)
  endif()
endif()

# Times after January 2038 and large files, where the machine's words are short.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(vrox_flags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

if(VROX_SANITIZE)
  target_compile_options(vrox_flags INTERFACE -fsanitize=${VROX_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(vrox_flags INTERFACE -fsanitize=${VROX_SANITIZE})
else()
  # Hardening: it runs as root on the path of everybody's traffic.
  target_compile_options(vrox_flags INTERFACE -fstack-protector-strong -fstack-clash-protection
    $<$<CONFIG:Release>:-U_FORTIFY_SOURCE> $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
  target_link_options(vrox_flags INTERFACE ${VROX_EXECUTABLE} -Wl,-z,relro,-z,now,-z,noexecstack)
endif()

if(CMAKE_BUILD_TYPE STREQUAL "Release")
  include(CheckIPOSupported)
  check_ipo_supported(RESULT VROX_LTO OUTPUT VROX_LTO_WHY LANGUAGES CXX)
  if(VROX_LTO)
    set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
    # GCC 12's link-time pass takes the overflow check of a nothrow array new for
    # the size that is asked for.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_link_options(vrox_flags INTERFACE -Wno-alloc-size-larger-than)
    endif()
  endif()
endif()
