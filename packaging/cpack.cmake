# SPDX-License-Identifier: Apache-2.0
# Debian packages, one for each component. A 32-bit build makes the libraries' packages for the 32-bit architecture beside
# those that the machine's own build makes; packaging/build_packages runs both.
find_program(LIBIP_DPKG dpkg)
mark_as_advanced(LIBIP_DPKG)
if(NOT LIBIP_DPKG)
  return()
endif()
execute_process(COMMAND ${LIBIP_DPKG} --print-architecture OUTPUT_VARIABLE architecture OUTPUT_STRIP_TRAILING_WHITESPACE)
set(components libip1 libip-dev librsw1 librsw-dev)
if(architecture STREQUAL "amd64" AND CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(architecture i386)
elseif(LIBIP_PROGRAMS)
  list(APPEND components ipd ipsh)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/packaging/debian/stage.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/packaging/debian/finish.cmake)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
  WORLD_EXECUTE)
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_PACKAGE_CONTACT "libip maintainers <maintainers@libip.example.org>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE libip)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${architecture})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

foreach(component IN LISTS components)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${component})
endforeach()

# The generator has no word of its own for Multi-Arch: the field follows the section.
foreach(library libip librsw)
  string(TOUPPER ${library} upper)
  set(CPACK_DEBIAN_${upper}1_PACKAGE_SECTION "libs\nMulti-Arch: same")
  set(CPACK_DEBIAN_${upper}-DEV_PACKAGE_SECTION "libdevel\nMulti-Arch: same")
  set(CPACK_DEBIAN_${upper}1_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/triggers)
  set(CPACK_DEBIAN_${upper}1_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  set(CPACK_DEBIAN_${upper}-DEV_PACKAGE_SHLIBDEPS OFF)
endforeach()
set(CPACK_DEBIAN_IPD_PACKAGE_SECTION net)
set(CPACK_DEBIAN_IPSH_PACKAGE_SECTION net)

# libip needs a platform under it and does not say which; librsw is the one that is there.
set(CPACK_DEBIAN_LIBIP1_PACKAGE_RECOMMENDS "librsw1 (= ${version})")
set(CPACK_DEBIAN_LIBIP-DEV_PACKAGE_DEPENDS "libip1 (= ${version}), librsw-dev (= ${version})")
set(CPACK_DEBIAN_LIBRSW-DEV_PACKAGE_DEPENDS "librsw1 (= ${version})")
# Exactly these, because programs use more of librsw than its contract.
set(libraries "libip1 (= ${version}), librsw1 (= ${version})")
set(CPACK_DEBIAN_IPD_PACKAGE_DEPENDS "${libraries}, systemd-sysusers | adduser")
set(CPACK_DEBIAN_IPSH_PACKAGE_DEPENDS "${libraries}")
set(CPACK_DEBIAN_IPSH_PACKAGE_RECOMMENDS "ipd (= ${version})")
set(CPACK_DEBIAN_IPD_PACKAGE_SUGGESTS "ipsh (= ${version})")

set(scripts ${CMAKE_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_IPD_PACKAGE_CONTROL_EXTRA
  "${scripts}/ipd/conffiles;${scripts}/ipd/postinst;${scripts}/ipd/prerm;${scripts}/ipd/postrm")
set(CPACK_DEBIAN_IPD_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIBIP1_DESCRIPTION "client library of the IPv4 service
A process that links this library answers its own questions about the host's
IPv4 state (contexts, interfaces, addresses, routes) from shared memory, in
nanoseconds and without a message, and sends requests and packets to ipd.")
set(CPACK_DEBIAN_LIBIP-DEV_DESCRIPTION "client library of the IPv4 service - development files
Headers, and files for pkg-config and CMake, to build clients of ipd with.")
set(CPACK_DEBIAN_LIBRSW1_DESCRIPTION "platform of libip on Linux
Shared segments, reader lock, trees, route tables, message queues and packet
buffers: what libip stands on, on a Linux host.")
set(CPACK_DEBIAN_LIBRSW-DEV_DESCRIPTION "platform of libip on Linux - development files
Headers of the contract between libip and its platform, and files for
pkg-config and CMake.")
set(CPACK_DEBIAN_IPD_DESCRIPTION "publish a host's IPv4 state to the clients of libip
The IP process follows the kernel over rtnetlink and publishes contexts,
interfaces, addresses and routes in shared memory. It serves the requests of
its clients, and sends and receives packets for them. It runs as a user of
its own with two capabilities.")
set(CPACK_DEBIAN_IPSH_DESCRIPTION "command line of the IPv4 service
Shows what ipd publishes, asks every query of libip by name, explains where
packets go, and joins groups, configures addresses and captures packets by
ipd.")
include(CPack)
