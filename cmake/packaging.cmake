# Debian packages of the build (cpack -G DEB in a build configured with
# -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_RPATH=ON; scripts/package_deb.sh does all of
# it, and marks the two library packages "Multi-Arch: same", which CPack cannot write):
#
#   libvistrel-store0     runtime: libvistrel_store.so.0 and the platform libraries it needs
#                         (libpanelkit, libnbutils, libopdsmodel, libvistrel_host)
#   libvistrel-store-dev  headers, the CMake package, the pkg-config file, the .so links
#   vistrel-tools         vistrel and vistrel-demo-shop with whatever else tools/ installs
#
# Install rules name their component (runtime, dev); rules without one, as in tools/, land in
# "tools". Dependencies on other Debian packages come from dpkg-shlibdeps. A cross build has no
# dpkg database of its architecture, so it hands dpkg-shlibdeps the Debian shlibs entries of the
# system libraries it links against (the same Debian release on both architectures) and the
# sysroot's library folders to find them in. Manual pages are compressed in the staging folder
# (cmake/deb_compress_manuals.cmake).

set(VISTREL_DEB_MAINTAINER "vistrel_store developers <maintainers@vistrel.example>"
    CACHE STRING "Maintainer field of the Debian packages")
set(VISTREL_DEB_RELEASE "1" CACHE STRING "Debian revision of the packages")

set(CPACK_PACKAGE_NAME vistrel-store)
set(CPACK_PACKAGE_VENDOR "vistrel_store developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "${VISTREL_DEB_MAINTAINER}")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://vistrel.example/")
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(VISTREL_DEB_COMPONENTS runtime dev)
if(VISTREL_BUILD_TOOLS)
  list(APPEND VISTREL_DEB_COMPONENTS tools)
endif()
set(CPACK_COMPONENTS_ALL ${VISTREL_DEB_COMPONENTS})
set(CPACK_STRIP_FILES ON)
# Installs run with DESTDIR set to the staging folder and the prefix of the packages.
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${VISTREL_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VISTREL_DEB_RELEASE})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Packages of our own: the dependencies among them are named below, not found by dpkg.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    ${PROJECT_BINARY_DIR}/vistrel_store ${PROJECT_BINARY_DIR}/platform/host
    ${PROJECT_BINARY_DIR}/platform/panelkit ${PROJECT_BINARY_DIR}/platform/nbutils
    ${PROJECT_BINARY_DIR}/platform/opdsmodel)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSROOT)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
       ${CMAKE_SYSROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}
       ${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvistrel-store0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# A shlibs file for packages built against ours, and ldconfig run through its trigger.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "e-book shop client library for e-readers
libvistrel_store sells and delivers e-books from one shop on an e-reader: the
shop configuration fetched by serial number, the shop's web service, a cart
that survives restarts, the payment step in the device browser and background
downloads of bought books.

This package holds the shared library and the host stand-ins of the device
libraries that it needs at run time (panelkit, nbutils, opdsmodel) with the
host emulation of the device.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libvistrel-store-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libjsoncpp-dev, libboost-dev (>= 1.74), libcurl4-openssl-dev | libcurl-dev, libexpat1-dev")
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION "e-book shop client library for e-readers (development files)
libvistrel_store sells and delivers e-books from one shop on an e-reader.

This package holds the headers, the CMake package (find_package(vistrel_store))
and the pkg-config file (vistrel_store).")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vistrel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "e-book shop client library for e-readers (tools)
vistrel drives the e-book shop library from the command line on an emulated
device: shop configuration, account, catalogue, cart, checkout, payment and
downloads. vistrel-demo-shop serves a small demo shop on the loopback
interface.")

# Every package carries its copyright file and its changelog, as Debian asks.
set(VISTREL_DEB_DOC_DIR ${PROJECT_BINARY_DIR}/deb-doc)
file(MAKE_DIRECTORY ${VISTREL_DEB_DOC_DIR})
find_program(VISTREL_GZIP gzip)
# The changelog's date is the last commit's, so that the packages of every architecture built
# from one tree carry the same file (Multi-Arch: same requires it).
execute_process(COMMAND git log -1 --format=%cD WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  OUTPUT_VARIABLE VISTREL_DEB_DATE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT VISTREL_DEB_DATE)
  string(TIMESTAMP VISTREL_DEB_DATE "%a, %d %b %Y 00:00:00 +0000" UTC)
endif()
foreach(component ${VISTREL_DEB_COMPONENTS})
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(VISTREL_DEB_PACKAGE ${package})
  configure_file(${PROJECT_SOURCE_DIR}/packaging/changelog.in
                 ${VISTREL_DEB_DOC_DIR}/${package}/changelog.Debian @ONLY)
  if(VISTREL_GZIP)
    execute_process(COMMAND ${VISTREL_GZIP} -9nf ${VISTREL_DEB_DOC_DIR}/${package}/changelog.Debian)
  endif()
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright
                ${VISTREL_DEB_DOC_DIR}/${package}/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component}
          EXCLUDE_FROM_ALL)
endforeach()

if(CMAKE_CROSSCOMPILING)
  # The packages' architecture is the target's, not the build machine's.
  execute_process(COMMAND dpkg-architecture -t${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  # dpkg-shlibdeps reads debian/shlibs.local from the package's staging folder; the file is
  # removed again before the package is made.
  set(shlibs_local)
  foreach(package libc6 libstdc++6 libgcc-s1 libjsoncpp25 libcurl4 libexpat1)
    file(GLOB shlibs /var/lib/dpkg/info/${package}.shlibs /var/lib/dpkg/info/${package}:*.shlibs)
    if(NOT shlibs)
      message(WARNING "packaging: no Debian shlibs entry of ${package} on this system; "
                      "the packages will not depend on it")
      continue()
    endif()
    list(GET shlibs 0 first)
    file(STRINGS ${first} lines REGEX "^[a-z]")
    foreach(line ${lines})
      string(APPEND shlibs_local "${line}\n")
    endforeach()
  endforeach()
  file(WRITE ${PROJECT_BINARY_DIR}/deb-doc/shlibs.local "${shlibs_local}")
  # Only the packages with programs or libraries run dpkg-shlibdeps (and remove the file).
  set(binary_components ${VISTREL_DEB_COMPONENTS})
  list(REMOVE_ITEM binary_components dev)
  foreach(component ${binary_components})
    install(FILES ${PROJECT_BINARY_DIR}/deb-doc/shlibs.local DESTINATION /debian
            COMPONENT ${component} EXCLUDE_FROM_ALL)
  endforeach()
endif()

set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/deb_compress_manuals.cmake)

include(CPack)
