# SPDX-License-Identifier: Apache-2.0
# The HTML reference: cmake --build BUILD --target reference, then BUILD/reference/html/index.html.
find_program(DOXYGEN doxygen)
if(Python3_FOUND)
  set(reference_inputs)
  foreach(input README.md CONTRIBUTING.md SECURITY.md docs routing/ip/include platform/include)
    string(APPEND reference_inputs "\"${CMAKE_SOURCE_DIR}/${input}\" ")
  endforeach()
  configure_file(${CMAKE_SOURCE_DIR}/packaging/reference/Doxyfile.in ${CMAKE_BINARY_DIR}/packaging/Doxyfile @ONLY)
  if(DOXYGEN)
    add_custom_target(reference
      COMMAND ${DOXYGEN} ${CMAKE_BINARY_DIR}/packaging/Doxyfile
      COMMENT "Writing the reference to ${CMAKE_BINARY_DIR}/reference/html/index.html" VERBATIM)
  endif()
endif()
