# SPDX-License-Identifier: Apache-2.0
# CPack gives packages with libraries scripts that call ldconfig. dpkg does that by itself, once for all packages, when
# they have its trigger; so the scripts go.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
  if(package MATCHES "/(libip1|librsw1)_[^/]*\\.deb$")
    set(root ${package}.root)
    execute_process(COMMAND dpkg-deb --raw-extract ${package} ${root} COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE ${root}/DEBIAN/postinst ${root}/DEBIAN/postrm)
    execute_process(COMMAND dpkg-deb --root-owner-group --build ${root} ${package} OUTPUT_QUIET
      COMMAND_ERROR_IS_FATAL ANY)
    file(REMOVE_RECURSE ${root})
  endif()
endforeach()
