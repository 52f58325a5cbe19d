# Flags that every target of the project shares.
add_compile_options(-Wall -Wextra -Wpedantic)
if(POLICY_WERROR)
  add_compile_options(-Werror)
endif()

# Assertions and deliberate crashes are part of the product: no build type defines NDEBUG.
foreach(lang C CXX)
  foreach(type RELEASE RELWITHDEBINFO MINSIZEREL)
    string(REPLACE "-DNDEBUG" "" CMAKE_${lang}_FLAGS_${type} "${CMAKE_${lang}_FLAGS_${type}}")
  endforeach()
  # Sanitized builds: enough optimisation to run, enough line numbers for a report.
  set(CMAKE_${lang}_FLAGS_SANITIZE "-O1 -gline-tables-only")
endforeach()

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

# Whatever ships is hardened; sanitizers see more, and see it better without.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)
set(POLICY_SHIPS "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
set(POLICY_HARDENING -fstack-protector-strong -fstack-clash-protection -U_FORTIFY_SOURCE
  -D_FORTIFY_SOURCE=2)
# Indirect branches and returns: x86 has one name for it, 64-bit Arm another.
foreach(flag -fcf-protection=full -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "POLICY_HAS${flag}" has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    list(APPEND POLICY_HARDENING ${flag})
  endif()
endforeach()
add_compile_options("$<${POLICY_SHIPS}:${POLICY_HARDENING}>")
add_link_options("$<${POLICY_SHIPS}:LINKER:-z,relro,-z,now,-z,noexecstack>")

if(POLICY_SANITIZE)
  add_compile_options(-fsanitize=${POLICY_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${POLICY_SANITIZE})
endif()
if(POLICY_BUILD_FUZZ)
  # Every object reports its coverage; only the fuzzers bring libFuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
