# Common settings of all targets: options, output folders, warnings, sanitizers.

option(KEL_SD_BUILD_TOOLS "Build the command-line tool nubo-sd" ON)
option(KEL_SD_BUILD_TESTS "Build the tests" OFF)
option(KEL_SD_BUILD_BENCHMARKS "Build the benchmarks" OFF)
option(KEL_SD_BUILD_FUZZERS "Build the fuzz targets for libFuzzer; needs Clang" OFF)
option(KEL_SD_BUILD_COST_SEARCH "Build the search for costly datagrams; needs KEL_SD_BUILD_FUZZERS" OFF)
option(KEL_SD_INSTALL "Generate the rules for installation and packaging" ${PROJECT_IS_TOP_LEVEL})
option(KEL_SD_WARNINGS_AS_ERRORS "Treat compiler warnings as errors" OFF)
option(KEL_SD_HARDENING "Build with the compiler's and linker's exploit protections" ON)
set(KEL_SD_SANITIZE "" CACHE STRING "Sanitizers to build with: address,undefined or thread")
option(KEL_SD_COVERAGE "Build for test coverage measurement" OFF)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Build type" FORCE)
endif()

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# Also puts the standard into the compile commands, where tools read it.
set(CMAKE_CXX_EXTENSIONS OFF)

# Every target of the project links these requirements.
add_library(kel_sd_build INTERFACE)
target_compile_features(kel_sd_build INTERFACE cxx_std_17)
target_compile_options(kel_sd_build INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow
  $<$<BOOL:${KEL_SD_WARNINGS_AS_ERRORS}>:-Werror>
  # Makes source paths in log lines relative to the project.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(KEL_SD_SANITIZE)
  target_compile_options(kel_sd_build INTERFACE
    -fsanitize=${KEL_SD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(kel_sd_build INTERFACE -fsanitize=${KEL_SD_SANITIZE})
endif()

if(KEL_SD_BUILD_FUZZERS)
  target_compile_options(kel_sd_build INTERFACE -fsanitize=fuzzer-no-link)
  # Clang links the sanitizers' runtime only into programs, so shared libraries must leave its symbols undefined.
  target_link_options(kel_sd_build INTERFACE $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:-Wl,-z,undefs>)
endif()

if(KEL_SD_COVERAGE)
  target_compile_options(kel_sd_build INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(kel_sd_build INTERFACE --coverage)
endif()

# The C library's checks require an optimised build, and would hide calls from the sanitizers.
set(KEL_SD_FORTIFIED 0)
if(KEL_SD_HARDENING AND NOT KEL_SD_SANITIZE)
  set(KEL_SD_FORTIFIED $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
endif()

if(KEL_SD_HARDENING)
  include(CheckPIESupported)
  check_pie_supported()
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  target_compile_definitions(kel_sd_build INTERFACE _GLIBCXX_ASSERTIONS)
  target_compile_options(kel_sd_build INTERFACE
    -fstack-protector-strong -fstack-clash-protection
    $<${KEL_SD_FORTIFIED}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
  target_link_options(kel_sd_build INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)

  # Restricts indirect jumps and returns to valid targets.
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    target_compile_options(kel_sd_build INTERFACE -fcf-protection)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    target_compile_options(kel_sd_build INTERFACE -mbranch-protection=standard)
  endif()
endif()

# Sets the version of a shared library and hides all symbols that it does not export.
function(kel_sd_configure_shared_library target)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_link_options(${target} PRIVATE -Wl,--no-undefined)
endfunction()
