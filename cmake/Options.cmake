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

if(POLICY_SANITIZE)
  add_compile_options(-fsanitize=${POLICY_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${POLICY_SANITIZE})
endif()
if(POLICY_BUILD_FUZZ)
  # Every object reports its coverage; only the fuzzers bring libFuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
