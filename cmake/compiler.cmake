# Compiler settings for all targets: the language, the warnings, the hardening of releases, and the instrumented builds.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
# Only functions that are marked for export are visible outside of their program or module. Modules thus see only the
# kernel calls of the program that loads them.
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

add_compile_options(-Wall -Wextra)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 gives false warnings in inlined std::string and std::tuple code (GCC bugs 105651 and 105329). clang makes the
  # same checks without them.
  add_compile_options(-Wno-restrict -Wno-array-bounds -Wno-stringop-overflow)
endif()

option(ATS_COVERAGE "Measure test coverage" OFF)
option(ATS_EDGES "Count the edges of the module's control flow, for ats-campaign --corpus; needs clang" OFF)
set(ATS_SANITIZE "" CACHE STRING "Sanitizers, written as for -fsanitize=")
if(ATS_SANITIZE)
  add_compile_options(-fsanitize=${ATS_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ATS_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    add_compile_options(-Wno-maybe-uninitialized) # false warnings in instrumented std::regex and std::function
  endif()
elseif(ATS_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
else()
  # The configuration can let every user of a machine send requests to the service. Therefore the programs are hardened
  # like the services of a distribution.
  include(CheckPIESupported)
  check_pie_supported()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  add_compile_options($<$<CONFIG:Release,RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64")
    add_compile_options(-fcf-protection)
  endif()
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
