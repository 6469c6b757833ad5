#===- packaging.cmake - Debian packages of the library through CPack -----===#
#
# `make package` configures a build of its own (install prefix /usr, no tests), builds the
# API reference, and has CPack's DEB generator write one package per install COMPONENT:
#
#   runtime      libtarvotools-mt1       libtarvotools-mt.so.1*
#   standin      libtarvoplatform1       libtarvoplatform.so.1*, the platform stand-in
#   dev          libtarvotools-mt-dev    headers, the .so link, pkg-config and CMake files
#   standin-dev  libtarvoplatform-dev    the stand-in's headers and its .so link
#   doc          libtarvotools-mt-doc    the HTML API reference (architecture all)
#
# and a -dbgsym package with the detached debug symbols of each package that holds a shared
# object. Runtime packages are named after the SONAME, as Debian names library packages.
#
# The stand-in is not installed with the library: libtarvotools-mt1 depends on
# "libtarvoplatform1 | tarvo-platform1" (and the -dev package likewise on "-dev"), and the
# stand-in packages provide those virtual names. A device installs the real platform
# libraries from a package that provides the same names, and the stand-in is never pulled in.
#
# Every package carries /usr/share/doc/<package>/copyright (machine-readable format) and
# changelog.Debian.gz. Libraries go to the multiarch directory: GNUInstallDirs picks
# lib/<triplet> when the install prefix is /usr on Debian.
#
#===----------------------------------------------------------------------===#

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtarvotools-mt)
set(CPACK_PACKAGE_VENDOR "TV platform")
set(CPACK_PACKAGE_CONTACT "libtarvotools-mt maintainers <libtarvotools-mt@tv-platform.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime standin dev standin-dev doc)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()
set(LT_DEB_VERSION "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

# A shlibs file for the libraries: applications built against version v need v or later of
# the same SONAME. Needs `file`.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# CPack strips the shared objects itself (CPACK_STRIP_FILES stays off, or there would be no
# symbols left to keep) and puts their debug information into <package>-dbgsym, under
# /usr/lib/debug/.build-id, where gdb and valgrind look for it.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)

set(lt_soversion ${PROJECT_VERSION_MAJOR})
set(lt_runtime_pkg libtarvotools-mt${lt_soversion})
set(lt_standin_pkg libtarvoplatform${lt_soversion})
# What the real platform's packages provide as well.
set(lt_platform_virtual tarvo-platform${lt_soversion})
set(lt_platform_dev_virtual tarvo-platform-dev)

# -- runtime
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${lt_runtime_pkg})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
  "${lt_standin_pkg} | ${lt_platform_virtual}, libboost-thread1.74.0, libboost-system1.74.0, \
libssl3 (>= 3.0.0), libstdc++6 (>= 12), libgcc-s1, libc6 (>= 2.34)")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "runtime library of the TV platform\n\
libtarvotools-mt.so.1: a select() main loop with timers and descriptors, an\n\
event queue with masks, time-to-live and lethal handlers, a timer queue, a\n\
serial executor, a configuration store, URIs, file encryption, RSA, MD5,\n\
SHA-1, base64 and containers.")

# -- standin
set(CPACK_DEBIAN_STANDIN_PACKAGE_NAME ${lt_standin_pkg})
set(CPACK_DEBIAN_STANDIN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_STANDIN_PACKAGE_PROVIDES ${lt_platform_virtual})
set(CPACK_DEBIAN_STANDIN_PACKAGE_DEPENDS "libstdc++6 (>= 12), libgcc-s1, libc6 (>= 2.34)")
set(CPACK_COMPONENT_STANDIN_DESCRIPTION
  "stand-in for the TV platform libraries\n\
libtarvoplatform.so.1: the OSAL time and backtrace functions, the debug\n\
output, the file layer and the value library, as far as libtarvotools-mt\n\
calls them, for machines without the platform. A device installs the real\n\
platform libraries instead.")

# -- dev
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarvotools-mt-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "${lt_runtime_pkg} (= ${LT_DEB_VERSION}), libtarvoplatform-dev | ${lt_platform_dev_virtual}, \
libboost1.74-dev, libboost-thread1.74-dev, libboost-system1.74-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "development files of libtarvotools-mt\n\
Headers, the .so link, the pkg-config file libtarvotools-mt.pc and the CMake\n\
package (find_package(libtarvotools-mt), target\n\
libtarvotools-mt::tarvotools-mt).")

# -- standin-dev
set(CPACK_DEBIAN_STANDIN-DEV_PACKAGE_NAME libtarvoplatform-dev)
set(CPACK_DEBIAN_STANDIN-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_STANDIN-DEV_PACKAGE_PROVIDES ${lt_platform_dev_virtual})
set(CPACK_DEBIAN_STANDIN-DEV_PACKAGE_DEPENDS "${lt_standin_pkg} (= ${LT_DEB_VERSION})")
set(CPACK_COMPONENT_STANDIN-DEV_DESCRIPTION
  "development files of the TV platform stand-in\n\
The headers csp_osal.h, csp_debug.h, fsal2_file.h and lv_arg.h and the .so\n\
link of libtarvoplatform, for building against libtarvotools-mt without the\n\
platform.")

# -- doc
set(CPACK_DEBIAN_DOC_PACKAGE_NAME libtarvotools-mt-doc)
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_PACKAGE_DEPENDS "")
set(CPACK_COMPONENT_DOC_DESCRIPTION
  "API reference of libtarvotools-mt\n\
The HTML reference built by Doxygen from the public headers, in\n\
/usr/share/doc/libtarvotools-mt-doc/html/index.html.")

# The HTML reference, made by `make docs` into <build>/docs/html before CPack runs.
install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/html
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libtarvotools-mt-doc COMPONENT doc OPTIONAL)

# copyright and changelog.Debian.gz of every package, the changelog compressed without a time
# stamp (gzip -n) so that rebuilds give the same bytes.
string(TIMESTAMP LT_DEB_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(LT_DEB_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog.Debian @ONLY)
execute_process(COMMAND gzip -9nc ${PROJECT_BINARY_DIR}/debian/changelog.Debian
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz RESULT_VARIABLE lt_gzip_result)
if(NOT lt_gzip_result EQUAL 0)
  message(FATAL_ERROR "gzip failed on the Debian changelog")
endif()
foreach(lt_component runtime standin dev standin-dev doc)
  string(TOUPPER ${lt_component} lt_upper)
  install(FILES ${CMAKE_CURRENT_LIST_DIR}/debian/copyright ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${lt_upper}_PACKAGE_NAME}
    COMPONENT ${lt_component})
endforeach()

# ldconfig triggers instead of CPack's maintainer scripts, and -dbgsym packages that dpkg and
# lintian accept.
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/finish-packages.cmake)

include(CPack)
