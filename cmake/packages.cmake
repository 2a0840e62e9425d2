# Debian packages, one a component.

if(NOT PROJECT_IS_TOP_LEVEL OR NOT TCP_COM_BUILD_TOOLS OR NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "TCP_COM_PACKAGES needs the project by itself, its tools, and the prefix /usr")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "libtcp_com maintainers <maintainers@libtcp-com.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
# The libraries are where the loader looks anyway.
set(CMAKE_SKIP_INSTALL_RPATH ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SOURCE libtcp-com)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
# A program built against a version runs with each later one of the same major version.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

# The loader's cache is renewed by a trigger, as Debian asks, and not by CPack's own scripts, which are
# left out in favour of scripts of these names: there are none.
set(files ${PROJECT_BINARY_DIR}/packages)
file(WRITE ${files}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${files}/triggers ${files}/postinst ${files}/postrm)

set(runtime_package libtcp-com${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "TCP communication for robot-arm controllers - shared libraries
The processes of a controller talk over TCP in compact JSON texts: servers
answer requests and publish state at fixed rates, clients send requests.
.
This package holds libtcp_com and its logging library libbrix_log.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtcp-com-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS libjsoncpp-dev)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "TCP communication for robot-arm controllers - development files
The processes of a controller talk over TCP in compact JSON texts: servers
answer requests and publish state at fixed rates, clients send requests.
.
This package holds the headers and what CMake and pkg-config need to link.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tcp-com-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime_package} (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
    "TCP communication for robot-arm controllers - command-line tool
tcpcom speaks to controllers from the shell, with exit statuses that a script
can trust: it pings, requests, watches, records, replays and measures.
.
It also stands in for a controller, with faults on demand, for tests.")

# The entry of this version in CHANGELOG.md, as Debian words it.
function(tcp_com_debian_changelog file)
  file(READ ${PROJECT_SOURCE_DIR}/CHANGELOG.md text)
  string(FIND "${text}" "\n## ${PROJECT_VERSION}" start)
  if(start EQUAL -1)
    message(FATAL_ERROR "CHANGELOG.md tells nothing of version ${PROJECT_VERSION}")
  endif()
  string(SUBSTRING "${text}" ${start} -1 text)
  string(REGEX REPLACE "^\n[^\n]*\n+" "\n" text "${text}")
  string(REGEX REPLACE "\n## .*" "" text "${text}")
  string(REGEX REPLACE "\n  " "\n    " text "${text}")
  string(REPLACE "\n- " "\n  * " text "${text}")
  string(STRIP "${text}" text)
  file(WRITE ${file} "  ${text}\n")
  execute_process(COMMAND fmt -t -w 78 ${file} OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC) # SOURCE_DATE_EPOCH, if it is set
  file(WRITE ${file} "${CPACK_DEBIAN_PACKAGE_SOURCE} (${PROJECT_VERSION}) unstable; urgency=medium\n\n"
                     "${text}\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${file}.gz COMMAND_ERROR_IS_FATAL ANY)
endfunction()

set(changelog ${files}/changelog)
tcp_com_debian_changelog(${changelog})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/CHANGELOG.md)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  install(
    FILES ${changelog}.gz ${PROJECT_SOURCE_DIR}/cmake/copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME}
    COMPONENT ${component})
endforeach()

include(CPack)
