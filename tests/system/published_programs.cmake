# SPDX-License-Identifier: Apache-2.0
# The programs that a user runs, against a system that the test publishes.
add_library(published_system STATIC published_system.cc)
target_include_directories(published_system PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(published_system PRIVATE project_flags GTest::gtest PUBLIC ipd_publish test_support ip rsw)

libip_test(examples_test SOURCES examples_test.cc LIBRARIES published_system)
target_compile_definitions(examples_test PRIVATE LIST_INTERFACES="$<TARGET_FILE:list_interfaces>"
                                                 WATCH_ADDRESSES="$<TARGET_FILE:watch_addresses>")
add_dependencies(examples_test list_interfaces watch_addresses)

if(LIBIP_PROGRAMS)
  add_library(ipsh_fixture STATIC control_peer.cc ipsh_asked.cc ipsh_fixture.cc)
  target_link_libraries(ipsh_fixture PRIVATE project_flags
                        PUBLIC published_system ipsh_parts GTest::gtest)
  target_compile_definitions(ipsh_fixture PUBLIC
    IP_EXPORTS="${CMAKE_SOURCE_DIR}/tests/abi/exports.txt"
    IPD="$<TARGET_FILE:ipd>"
    IPSH="$<TARGET_FILE:ipsh>"
    IPSH_MAN="${CMAKE_SOURCE_DIR}/packaging/man/ipsh.1"
    IPSH_COMPLETION="${CMAKE_SOURCE_DIR}/packaging/completion/ipsh"
    IPSH_SCHEMA_CHECK="${CMAKE_CURRENT_SOURCE_DIR}/ipsh_schema_check.py"
    IPSH_SCHEMA_DIRECTORY="${CMAKE_SOURCE_DIR}/ipsh/schema"
    IPSH_PYTHON="/usr/bin/python3")
  add_dependencies(ipsh_fixture ipd ipsh)
  libip_test(ipsh_test
    SOURCES ipsh_command_line_test.cc ipsh_commands_test.cc ipsh_completion_test.cc ipsh_explain_test.cc ipsh_interface_query_test.cc
            ipsh_ipd_test.cc ipsh_query_list_test.cc ipsh_query_test.cc ipsh_route_test.cc ipsh_schema_test.cc
            ipsh_show_test.cc ipsh_statistics_test.cc ipsh_terminal_test.cc ipsh_watch_test.cc
    LIBRARIES ipsh_fixture)
  libip_test(ipsh_request_test SOURCES ipsh_request_test.cc LIBRARIES ipsh_fixture)
endif()
