# Debian packages, built by scripts/package.sh: one per runtime component, and one for development with the
# libraries.

set(packaging ${PROJECT_SOURCE_DIR}/packaging)
set(KEL_SD_MAINTAINER "KELServiceDiscoveryLib maintainers <maintainers@kel.example>" CACHE STRING
  "Maintainer of the Debian packages: NAME <ADDRESS>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelservicediscovery)
set(CPACK_PACKAGE_VENDOR "")
# The first line of each package's description is its summary.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_CONTACT "${KEL_SD_MAINTAINER}")
set(CPACK_INSTALL_PREFIX /usr)
# Makes the installation rules see the final paths, such as /usr, instead of those in the staging folder.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebianFiles.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebianControl.cmake)
set(CPACK_KEL_SD_PACKAGING ${packaging})

set(CPACK_COMPONENTS_ALL Runtime Util OEMInterface Tools Dev UtilDev OEMInterfaceDev)
set(CPACK_COMPONENT_DEV_GROUP Development)
set(CPACK_COMPONENT_UTILDEV_GROUP Development)
set(CPACK_COMPONENT_OEMINTERFACEDEV_GROUP Development)

# The newest entry of the packages' change log must be for this version.
file(STRINGS ${packaging}/debian/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^kelservicediscovery \\(([^)]+)\\)" OR NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(SEND_ERROR "packaging/debian/changelog has no entry for version ${PROJECT_VERSION}")
endif()
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE kelservicediscovery)
set(CPACK_DEBIAN_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY >=)

# Packages of this project depend on each other in exactly the same version, but accept any sufficiently new edition
# of the two platform libraries, because a vehicle platform may provide them.
set(same "(= ${PROJECT_VERSION})")
set(platform "libkelutil0 (>= ${PROJECT_VERSION}), libkeloeminterface0 (>= ${PROJECT_VERSION})")
string(CONCAT platform_text
  "This is the edition for plain Linux. A vehicle platform supplies another\n"
  "edition in a package that provides this one with its version, conflicts with\n"
  "it and replaces it.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelservicediscovery0)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${platform}")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"SOME/IP service discovery between control units
Lets the service registries of a vehicle's control units discover each other's
services without server or configuration, by SOME/IP Service Discovery messages
over IPv6 multicast.")

set(CPACK_DEBIAN_UTIL_PACKAGE_NAME libkelutil0)
set(CPACK_DEBIAN_UTIL_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_UTIL_DESCRIPTION
"log and service locator of a vehicle platform
Shared services for the processes of a control unit: the log, and a registry
through which the parts of a process find each other's services.

${platform_text}")

set(CPACK_DEBIAN_OEMINTERFACE_PACKAGE_NAME libkeloeminterface0)
set(CPACK_DEBIAN_OEMINTERFACE_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_OEMINTERFACE_PACKAGE_DEPENDS "libkelutil0 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_OEMINTERFACE_DESCRIPTION
"dispatcher of a vehicle platform
Reports to the processes of a control unit which network interfaces to use, and
writes its event memory.

${platform_text}")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME nubo-sd)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkelservicediscovery0 ${same}, ${platform}")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"announce, find and watch services of control units
Announces services of this unit, reports those of other units, searches for
services, and displays the packets of SOME/IP Service Discovery on the network.

A systemd service announces the services listed in /etc/nubo-sd/services.json,
once that file exists and the service is enabled.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelservicediscovery-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libkelservicediscovery0 ${same}, ${platform}, libpoco-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"SOME/IP service discovery between control units - development files
Headers, CMake package and pkg-config files for building with
libKELServiceDiscoveryLib and with the platform's libKELUtilLib and
libKELOEMInterfaceLib.")

foreach(library RUNTIME UTIL OEMINTERFACE)
  set(CPACK_DEBIAN_${library}_PACKAGE_CONTROL_EXTRA ${packaging}/debian/triggers)
endforeach()
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA
  ${packaging}/debian/postinst ${packaging}/debian/prerm ${packaging}/debian/postrm)

include(CPack)
