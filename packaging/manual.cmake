# SPDX-License-Identifier: Apache-2.0
# Section 3 of the manual, made from the headers' contract blocks. A build without Python has no such pages.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND)
  set(manual_headers ${CMAKE_SOURCE_DIR}/routing/ip/include)
  set(manual_catalogue ${CMAKE_SOURCE_DIR}/routing/ip/catalog/ip_messages.h)
  file(GLOB manual_sources CONFIGURE_DEPENDS ${manual_headers}/*.h ${CMAKE_SOURCE_DIR}/packaging/man/*.py)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/man/man3/libip.3
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_SOURCE_DIR}/packaging/man/function_pages.py
            ${manual_headers} ${manual_catalogue} ${CMAKE_BINARY_DIR}/man/man3
    DEPENDS ${manual_sources} ${manual_catalogue}
    COMMENT "Writing the manual pages of libip's functions" VERBATIM)
  add_custom_target(manual ALL DEPENDS ${CMAKE_BINARY_DIR}/man/man3/libip.3)
  install(DIRECTORY ${CMAKE_BINARY_DIR}/man/man3 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT libip-dev OPTIONAL)
else()
  message(STATUS "manual pages of libip's functions: not made, there is no Python")
endif()
