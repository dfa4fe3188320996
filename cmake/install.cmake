# Headers, library, pkg-config file and CMake package.
include(CMakePackageConfigHelpers)

install(DIRECTORY include/qel_util DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        COMPONENT dev)
install(TARGETS qel_util EXPORT qel_utilTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime
          NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(EXPORT qel_utilTargets NAMESPACE qel_util::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qel_util COMPONENT dev)

configure_package_config_file(cmake/qel_utilConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/qel_utilConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qel_util)
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/qel_utilConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qel_utilConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/qel_utilConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/qel_util COMPONENT dev)

if(QEL_UTIL_STATIC)
  set(QEL_UTIL_PC_CFLAGS "-DQEL_UTIL_STATIC")
endif()
# The prefix is found from the file's own place, so an unpacked package or a
# copy of the install tree in a scratch or staging root works as it is.
file(RELATIVE_PATH QEL_UTIL_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" QEL_UTIL_PC_TO_PREFIX "${QEL_UTIL_PC_TO_PREFIX}")
configure_file(cmake/qel_util.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qel_util.pc
  @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qel_util.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
