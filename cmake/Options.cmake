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
endforeach()

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

if(POLICY_SANITIZE)
  add_compile_options(-fsanitize=${POLICY_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${POLICY_SANITIZE})
endif()
