# Shared compile settings for every QEVR target.
#
# Scores and confidences are rounded to a few decimals, so a fused
# multiply-add (the default on some targets) could round a half-way value
# differently from one platform to the next: contraction is off everywhere.

add_library(qevr_options INTERFACE)
target_compile_options(qevr_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror -Wshadow
  -ffp-contract=off)
# ICU is used through its C API only, which is all that the systems we ship
# on provide (none exports ICU's C++ API). With this, ICU's C++ headers
# declare nothing, so a use of them fails to compile.
target_compile_definitions(qevr_options INTERFACE U_SHOW_CPLUSPLUS_API=0)
# g++ 12 at -O3 reports impossible overlaps in inlined std::string
# concatenation (-Wrestrict, a known false positive of that release); it
# would fail optimised builds of correct code.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(qevr_options INTERFACE -Wno-restrict)
endif()
# g++ before 14 reports the members a designated initialiser leaves out,
# though leaving them to their defaults is the point of writing one.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 14)
  target_compile_options(qevr_options INTERFACE -Wno-missing-field-initializers)
endif()
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND QEVR_THREAD_SAFETY_ANALYSIS)
  target_compile_options(qevr_options INTERFACE -Wthread-safety)
endif()

# Sanitizer selection, set by the presets: "address" (ASan+UBSan) or "thread".
set(QEVR_SANITIZER "" CACHE STRING "Sanitizer build: address, thread or empty")
if(QEVR_SANITIZER STREQUAL "address")
  set(_qevr_san -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(QEVR_SANITIZER STREQUAL "thread")
  set(_qevr_san -fsanitize=thread -fno-omit-frame-pointer)
endif()
if(_qevr_san)
  add_compile_options(${_qevr_san})
  add_link_options(${_qevr_san})
endif()

# With fuzzers on, every library gets coverage instrumentation so that the
# fuzz targets are guided through the decoders, not only through their own
# entry points.
if(QEVR_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "QEVR_BUILD_FUZZERS needs clang (libFuzzer)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

find_program(QEVR_CCACHE ccache)
if(QEVR_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${QEVR_CCACHE}")
  set(CMAKE_C_COMPILER_LAUNCHER "${QEVR_CCACHE}")
endif()

# Every library object is built position-independent with hidden symbols: the
# same objects make the static module libraries and the one shared library
# (libqevr), which exports only what the public headers mark QEVR_API.
function(qevr_library_settings name)
  set_target_properties(${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    C_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_compile_definitions(${name} PRIVATE QEVR_SHARED_LIBRARY)
  set_property(GLOBAL APPEND PROPERTY QEVR_MODULES ${name})
endfunction()

# qevr_module(<name> [DEPS ...]): one static library per module directory,
# public headers under <dir>/include, sources and internal headers in <dir>/src.
function(qevr_module name)
  cmake_parse_arguments(M "" "" "DEPS;PRIVATE_DEPS" ${ARGN})
  file(GLOB _srcs CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/src/*.cpp")
  add_library(${name} STATIC ${_srcs})
  target_include_directories(${name}
    PUBLIC "$<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>"
    PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}/src")
  target_link_libraries(${name} PUBLIC ${M_DEPS}
    PRIVATE $<BUILD_INTERFACE:qevr_options> ${M_PRIVATE_DEPS})
  qevr_library_settings(${name})
endfunction()
