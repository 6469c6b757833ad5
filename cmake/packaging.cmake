#===- packaging.cmake - Debian packages of the library through CPack -----===#
#
# `make package` (CPack's DEB generator) writes two packages into the build folder:
#
#   libtarvotools-mt      the install COMPONENT runtime: libtarvotools-mt.so.1* and the
#                         platform stand-in libtarvoplatform.so.1*
#   libtarvotools-mt-dev  the COMPONENT dev: headers, the .so links, the pkg-config file and
#                         the CMake package files
#
# Both install under /usr. Dependencies are Debian's Boost and OpenSSL packages by name; the
# -dev package needs the runtime package of exactly the same version.
#
#===----------------------------------------------------------------------===#

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtarvotools-mt)
set(CPACK_PACKAGE_VENDOR "TV platform")
set(CPACK_PACKAGE_CONTACT "libtarvotools-mt maintainers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

# One package per install COMPONENT, and only these two components.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
endif()
set(lt_deb_version "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

# A shlibs file for the libraries, and ldconfig on install and removal; needs `file`.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

# -- runtime: the SONAME'd libraries
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtarvotools-mt)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
  "libboost-thread1.74.0, libboost-system1.74.0, libssl3, libstdc++6, libgcc-s1, libc6")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Runtime library of the TV platform\n\
libtarvotools-mt.so.1 (select main loop, event queue, timer queue, serial executor,\n\
configuration store, URIs, file encryption, RSA, MD5, SHA-1, base64, containers) and\n\
libtarvoplatform.so.1, the stand-in for the platform libraries it calls.")

# -- dev: what building an application against the library needs
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarvotools-mt-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libtarvotools-mt (= ${lt_deb_version}), libboost1.74-dev, libboost-thread1.74-dev, \
libboost-system1.74-dev, libssl-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Development files of libtarvotools-mt\n\
Headers, the unversioned .so links, the pkg-config file libtarvotools-mt.pc and the CMake\n\
package (find_package(libtarvotools-mt), target libtarvotools-mt::tarvotools-mt).")

include(CPack)
