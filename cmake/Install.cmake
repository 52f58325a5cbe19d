# What `cmake --install` leaves: headers, library, and what pkg-config and find_package need. The
# tools install themselves where they are built.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/policy DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT devel
  FILES_MATCHING PATTERN "*.h")
# The records that the public headers speak in. What the platform does with them is not the
# library's to promise.
install(FILES platform/include/kel/ipaddr_types.h platform/include/kel/tloc_types.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kel COMPONENT devel)
# The agent's client has a library of its own beside it, so all of its headers do link.
install(DIRECTORY platform/include/yarrow DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT devel
  FILES_MATCHING PATTERN "*.h")

install(TARGETS policy yarrow_shared EXPORT libpolicyTargets
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
configure_file(cmake/libyarrow.pc.in ${CMAKE_BINARY_DIR}/libyarrow.pc @ONLY)
configure_file(cmake/libpolicy-host.pc.in ${CMAKE_BINARY_DIR}/libpolicy-host.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/libpolicy.pc ${CMAKE_BINARY_DIR}/libyarrow.pc
  ${CMAKE_BINARY_DIR}/libpolicy-host.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT devel)

install(DIRECTORY agent/yang/ DESTINATION ${CMAKE_INSTALL_DATADIR}/yang/modules/libpolicy
  COMPONENT tools FILES_MATCHING PATTERN "*.yang")

# Manual pages and completion come from the tool itself, so a build for another machine has none.
find_program(SCDOC scdoc)
if(SCDOC AND NOT CMAKE_CROSSCOMPILING AND NOT POLICY_SANITIZE)
  file(GLOB POLICY_PAGES CONFIGURE_DEPENDS docs/man/*.md)
  set(POLICY_MANUALS ${CMAKE_BINARY_DIR}/manuals)
  add_custom_command(OUTPUT ${POLICY_MANUALS}/stamp
    COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=$<TARGET_FILE_DIR:policy>
      ${CMAKE_SOURCE_DIR}/scripts/manuals $<TARGET_FILE:polctl> ${SCDOC} ${POLICY_MANUALS}
    COMMAND ${CMAKE_COMMAND} -E touch ${POLICY_MANUALS}/stamp
    DEPENDS polctl scripts/manuals ${POLICY_PAGES} COMMENT "Making manual pages and completion")
  add_custom_target(manuals ALL DEPENDS ${POLICY_MANUALS}/stamp)
  install(DIRECTORY ${POLICY_MANUALS}/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools)
  install(FILES ${POLICY_MANUALS}/completion/polctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
  install(FILES ${POLICY_MANUALS}/completion/_polctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions COMPONENT tools)
else()
  add_custom_target(manuals)
endif()
