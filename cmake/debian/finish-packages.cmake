#===- finish-packages.cmake - What CPack's DEB generator leaves undone ---===#
#
# Run by cpack after it has written the packages and before it copies them out of its staging
# folder (CPACK_POST_BUILD_SCRIPTS, CPACK_PACKAGE_FILES). Each package is unpacked with
# dpkg-deb, changed as below and built again in its place:
#
#   - a package whose postinst and postrm only call ldconfig gets an ldconfig trigger
#     (DEBIAN/triggers) instead of those two scripts, as Debian's library packages have;
#   - a -dbgsym package gets an md5sums file with paths relative to its root (CPack writes
#     the absolute paths of its staging folder), and /usr/share/doc/<package>-dbgsym as a
#     link to the documentation folder of the package it belongs to (copyright, changelog),
#     which it depends on at the same version.
#
#===----------------------------------------------------------------------===#

set(lt_ldconfig_postinst "#!/bin/sh\n\nset -e\n\nif [ \"$1\" = \"configure\" ]; then\n\tldconfig\nfi\n")
set(lt_ldconfig_postrm "#!/bin/sh\n\nset -e\n\nif [ \"$1\" = \"remove\" ]; then\n\tldconfig\nfi\n")

foreach(lt_package IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(lt_name "${lt_package}" NAME)
  set(lt_root "${CPACK_TOPLEVEL_DIRECTORY}/finish/${lt_name}")
  file(REMOVE_RECURSE "${lt_root}")
  file(MAKE_DIRECTORY "${CPACK_TOPLEVEL_DIRECTORY}/finish")
  execute_process(COMMAND dpkg-deb -R "${lt_package}" "${lt_root}" RESULT_VARIABLE lt_result)
  if(NOT lt_result EQUAL 0)
    message(FATAL_ERROR "dpkg-deb could not unpack ${lt_package}")
  endif()
  set(lt_control "${lt_root}/DEBIAN")

  if(EXISTS "${lt_control}/postinst" AND EXISTS "${lt_control}/postrm")
    file(READ "${lt_control}/postinst" lt_postinst)
    file(READ "${lt_control}/postrm" lt_postrm)
    if(lt_postinst STREQUAL lt_ldconfig_postinst AND lt_postrm STREQUAL lt_ldconfig_postrm)
      file(REMOVE "${lt_control}/postinst" "${lt_control}/postrm")
      file(WRITE "${lt_control}/triggers" "activate-noawait ldconfig\n")
    endif()
  endif()

  file(STRINGS "${lt_control}/control" lt_package_line REGEX "^Package: ")
  string(REGEX REPLACE "^Package: " "" lt_package_name "${lt_package_line}")
  if(lt_package_name MATCHES "^(.+)-dbgsym$")
    set(lt_owner "${CMAKE_MATCH_1}")
    file(GLOB_RECURSE lt_files LIST_DIRECTORIES false RELATIVE "${lt_root}" "${lt_root}/usr/*")
    list(SORT lt_files)
    set(lt_md5sums "")
    foreach(lt_file IN LISTS lt_files)
      file(MD5 "${lt_root}/${lt_file}" lt_sum)
      string(APPEND lt_md5sums "${lt_sum}  ${lt_file}\n")
    endforeach()
    file(WRITE "${lt_control}/md5sums" "${lt_md5sums}")
    file(MAKE_DIRECTORY "${lt_root}/usr/share/doc")
    file(CREATE_LINK "${lt_owner}" "${lt_root}/usr/share/doc/${lt_package_name}" SYMBOLIC)
  endif()

  file(REMOVE "${lt_package}")
  execute_process(COMMAND dpkg-deb --root-owner-group -b "${lt_root}" "${lt_package}"
    OUTPUT_QUIET RESULT_VARIABLE lt_result)
  if(NOT lt_result EQUAL 0)
    message(FATAL_ERROR "dpkg-deb could not build ${lt_package}")
  endif()
  file(REMOVE_RECURSE "${lt_root}")
endforeach()
