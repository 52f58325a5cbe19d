# What `cmake --install` leaves: headers, library, and what pkg-config and find_package need. The
# tools install themselves where they are built.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/policy DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT devel
  FILES_MATCHING PATTERN "*.h")
# The records that the public headers speak in. What the platform does with them is not the
# library's to promise.
install(FILES platform/include/kel/ipaddr_types.h platform/include/kel/tloc_types.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kel COMPONENT devel)
install(FILES platform/include/yarrow/yarrow_cli_types.h platform/include/yarrow/yarrow_values.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/yarrow COMPONENT devel)

install(TARGETS policy EXPORT libpolicyTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel)

set(POLICY_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/libpolicy)
install(EXPORT libpolicyTargets NAMESPACE policy:: DESTINATION ${POLICY_CMAKE_DIR} COMPONENT devel)
configure_package_config_file(cmake/libpolicyConfig.cmake.in
  ${CMAKE_BINARY_DIR}/libpolicyConfig.cmake INSTALL_DESTINATION ${POLICY_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/libpolicyConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/libpolicyConfig.cmake
  ${CMAKE_BINARY_DIR}/libpolicyConfigVersion.cmake
  DESTINATION ${POLICY_CMAKE_DIR} COMPONENT devel)

# Relative to where the file lies, so that an installed tree may move.
file(RELATIVE_PATH POLICY_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/libpolicy.pc.in ${CMAKE_BINARY_DIR}/libpolicy.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/libpolicy.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT devel)
