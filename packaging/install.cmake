# SPDX-License-Identifier: Apache-2.0
# What is installed, and which package each thing belongs to. Programs name their own files where they are built.
include(CMakePackageConfigHelpers)

set(LIBIP_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake)
set(headers_ip ${CMAKE_INSTALL_INCLUDEDIR}/libip)
file(RELATIVE_PATH prefix_from_pkgconfig /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
set(headers_rsw ${CMAKE_INSTALL_INCLUDEDIR}/librsw)

# libip: its own headers. They include the platform's, which come with whatever platform is linked.
install(TARGETS ip EXPORT libip-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT libip1 NAMELINK_COMPONENT libip-dev)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/routing/ip/include/ ${CMAKE_SOURCE_DIR}/routing/ip/catalog/
  DESTINATION ${headers_ip} COMPONENT libip-dev FILES_MATCHING PATTERN "*.h")

# librsw: the contract's headers.
install(TARGETS rsw EXPORT librsw-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT librsw1 NAMELINK_COMPONENT librsw-dev)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/platform/include/
  DESTINATION ${headers_rsw} COMPONENT librsw-dev FILES_MATCHING PATTERN "*.h")
install(TARGETS platform_contract EXPORT librsw-targets)

foreach(library libip librsw)
  configure_package_config_file(${CMAKE_SOURCE_DIR}/packaging/cmake/${library}-config.cmake.in
    ${CMAKE_BINARY_DIR}/packaging/${library}-config.cmake
    INSTALL_DESTINATION ${LIBIP_INSTALL_CMAKEDIR}/${library})
  write_basic_package_version_file(${CMAKE_BINARY_DIR}/packaging/${library}-config-version.cmake
    COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${library}-config.cmake
    ${CMAKE_BINARY_DIR}/packaging/${library}-config-version.cmake
    DESTINATION ${LIBIP_INSTALL_CMAKEDIR}/${library} COMPONENT ${library}-dev)
  install(EXPORT ${library}-targets NAMESPACE ${library}:: DESTINATION ${LIBIP_INSTALL_CMAKEDIR}/${library}
    COMPONENT ${library}-dev)
  configure_file(${CMAKE_SOURCE_DIR}/packaging/pkgconfig/${library}.pc.in
    ${CMAKE_BINARY_DIR}/packaging/${library}.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/packaging/${library}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT ${library}-dev)
endforeach()

include(packaging/manual.cmake)
include(packaging/reference.cmake)
if(TARGET ipd)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/man/ipd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT ipd)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/man/ipd.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT ipd)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/ipd.service DESTINATION lib/systemd/system COMPONENT ipd)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/ipd.sysusers DESTINATION lib/sysusers.d RENAME ipd.conf
    COMPONENT ipd)
endif()
