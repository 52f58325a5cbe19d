# A room compiled as one unit: most of a file's cost is what it includes. For builds that are made
# whole (sanitizers, clang-tidy), not for those that change file by file. clang's analyzer takes
# included files for code only below a name with UnifiedSource in it.
function(policy_unity)
  foreach(target ${ARGN})
    if(NOT TARGET ${target})
      continue()
    endif()
    get_target_property(sources ${target} SOURCES)
    get_target_property(home ${target} SOURCE_DIR)
    foreach(source ${sources})
      if(source MATCHES "\\$<")
        continue()
      endif()
      cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${home} NORMALIZE OUTPUT_VARIABLE path)
      cmake_path(GET path PARENT_PATH room)
      cmake_path(GET room FILENAME room)
      # Families of lists name their parts alike on purpose; what tests put something in place of, they
      # do at the link, which a call within a unit does not pass.
      if(room STREQUAL "lists" OR path MATCHES "/(pol_thread_wait|clock)\\.cpp$")
        continue()
      endif()
      set_property(SOURCE ${path} TARGET_DIRECTORY ${target} PROPERTY UNITY_GROUP UnifiedSource_${room})
    endforeach()
    set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
    # g++ takes an included source's own types for a header's; and where texts are put together it
    # raises false alarms when it inlines as much as here (12). The developer's build has them on.
    target_compile_options(${target} PRIVATE
      $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wno-subobject-linkage;-Wno-restrict;-Wno-stringop-overflow>)
  endforeach()
endfunction()
