# Debian packages from the install components of cmake/install.cmake:
#   libqel-util1     runtime: the shared library with its SONAME
#   libqel-util-dev  dev: headers, the .so link, pkg-config and CMake package
# The packages install under /usr. Build them with `cpack` in a build
# directory configured with -DCMAKE_INSTALL_PREFIX=/usr, so that the library
# lands in Debian's multiarch directory (scripts/package.sh does); a cross
# build gives packages for the target's architecture.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libqel-util)
set(CPACK_PACKAGE_VENDOR "qel_util developers")
set(CPACK_PACKAGE_CONTACT "qel_util developers <qel-util@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Utility library for the service programs of the device")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

# Debian's name for the architecture the library is built for.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm" AND
   CMAKE_LIBRARY_ARCHITECTURE MATCHES "gnueabihf$")
  set(QEL_UTIL_DEB_ARCH armhf)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(QEL_UTIL_DEB_ARCH arm64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(QEL_UTIL_DEB_ARCH amd64)
endif()
if(QEL_UTIL_DEB_ARCH)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${QEL_UTIL_DEB_ARCH})
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME
    libqel-util${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# CPack puts the summary line above each of these.
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "The shared library: daemon framework, thread and IPC wrappers, local
datagram sockets, device identity queries and peripheral helpers.")
# dpkg-shlibdeps needs the target's C library as a Debian package, which a
# cross build machine does not have; the library needs glibc (with POSIX
# threads) and the GNU C++ runtime only.
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
      "libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 11)")
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
endif()

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqel-util-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libqel-util${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "Development files: headers, the link to the shared library, the
pkg-config file and the CMake package (find_package(qel_util)).")

include(CPack)
