# Installation: both libraries, one include folder, and what find_package and pkg-config need. The
# components are what a machine may need apart: runtime, development, tools.

include(CMakePackageConfigHelpers)

set(TCP_COM_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tcp_com)

install(
  TARGETS brix_log tcp_com
  EXPORT tcp_comTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT runtime
          NAMELINK_COMPONENT development)
# The libraries find each other wherever they are installed.
set_target_properties(tcp_com PROPERTIES INSTALL_RPATH "$ORIGIN")

foreach(folder IN LISTS TCP_COM_INCLUDE_FOLDERS ITEMS log/include)
  install(
    DIRECTORY ${PROJECT_SOURCE_DIR}/${folder}/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tcp_com
    COMPONENT development
    FILES_MATCHING
    PATTERN "*.h")
endforeach()

install(
  EXPORT tcp_comTargets
  NAMESPACE tcp_com::
  DESTINATION ${TCP_COM_PACKAGE_DIR}
  COMPONENT development)
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/tcp_comConfig.cmake.in ${PROJECT_BINARY_DIR}/tcp_comConfig.cmake
  INSTALL_DESTINATION ${TCP_COM_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tcp_comConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tcp_comConfig.cmake
              ${PROJECT_BINARY_DIR}/tcp_comConfigVersion.cmake
        DESTINATION ${TCP_COM_PACKAGE_DIR}
        COMPONENT development)

# Relative to the .pc file, so that an installed tree may be moved.
file(RELATIVE_PATH TCP_COM_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
     ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/tcp_com.pc.in ${PROJECT_BINARY_DIR}/tcp_com.pc @ONLY)
install(
  FILES ${PROJECT_BINARY_DIR}/tcp_com.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
