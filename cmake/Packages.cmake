# The Debian packages, one a component; the host and the platform that it needs are one. scripts/make-packages.sh makes
# them, of the preset "package".
set(packaging "${PROJECT_SOURCE_DIR}/packaging/debian")

file(STRINGS "${packaging}/changelog" changelog LIMIT_COUNT 1)
if(NOT changelog MATCHES "^zav-pyx-plugin \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog does not begin with version ${PROJECT_VERSION}")
endif()
execute_process(COMMAND gzip -9nc "${packaging}/changelog"
  OUTPUT_FILE "${PROJECT_BINARY_DIR}/changelog.gz" COMMAND_ERROR_IS_FATAL ANY)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${packaging}/changelog")

# zav_package(COMPONENT NAME SECTION SUMMARY TEXT [DEPENDS text] [SUGGESTS text] [RECOMMENDS text] [CONTROL file...]
#             [ALL]): one with ALL fits every architecture.
macro(zav_package component name section summary text)
  cmake_parse_arguments(ARG "ALL" "DEPENDS;SUGGESTS;RECOMMENDS" "CONTROL" ${ARGN})
  string(TOUPPER "${component}" key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME "${name}")
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION "${section}")
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${summary}\n${text}")
  set(CPACK_DEBIAN_${key}_PACKAGE_DEPENDS "${ARG_DEPENDS}")
  set(CPACK_DEBIAN_${key}_PACKAGE_SUGGESTS "${ARG_SUGGESTS}")
  set(CPACK_DEBIAN_${key}_PACKAGE_RECOMMENDS "${ARG_RECOMMENDS}")
  set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA "${ARG_CONTROL}")
  set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  if(ARG_ALL)
    set(CPACK_DEBIAN_${key}_PACKAGE_ARCHITECTURE all)
  else()
    set(CPACK_DEBIAN_${key}_PACKAGE_SHLIBDEPS ON)
  endif()
  install(FILES "${packaging}/copyright" "${PROJECT_BINARY_DIR}/changelog.gz"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/${name}" COMPONENT ${component})
  if(EXISTS "${packaging}/${name}.lintian-overrides")
    install(FILES "${packaging}/${name}.lintian-overrides"
      DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" RENAME "${name}" COMPONENT ${component})
  endif()
endmacro()

set(threat_log "The threat log plug-in of the device policy manager keeps visits to threatening\n\
URLs, which the programs of the device report to it over a local socket.\n\n")
set(library "libpyxclient1 (= ${PROJECT_VERSION})")

zav_package(plugin zav-pyx-plugin admin "threat log plug-in of the device policy manager"
  "A shared library that the device policy manager loads. The programs of the\n\
device report visits to threatening URLs to it over a local socket; it keeps\n\
them in a log that survives restarts, power loss and a damaged file."
  DEPENDS "ucf" SUGGESTS "dpm-host, pyxctl"
  CONTROL "${packaging}/zav-pyx-plugin/postinst" "${packaging}/zav-pyx-plugin/postrm")
configure_file("${packaging}/libpyxclient1/shlibs.in" libpyxclient1/shlibs @ONLY)
zav_package(client libpyxclient1 libs "client library of the device's threat log"
  "${threat_log}This is the library by which programs report and read, in C and in C++."
  CONTROL "${packaging}/libpyxclient1/triggers" "${PROJECT_BINARY_DIR}/libpyxclient1/shlibs")
zav_package(development libpyxclient-dev libdevel "client library of the device's threat log - development files"
  "${threat_log}These are the headers for C and C++, what pkg-config and CMake need to find the\n\
library, and manual pages." DEPENDS "${library}")
zav_package(python python3-pyxclient python "client library of the device's threat log - Python module"
  "${threat_log}This is the Python module by which programs report and read." ALL
  DEPENDS "libpyxclient1 (>= ${PROJECT_VERSION}), python3:any"
  CONTROL "${packaging}/python3-pyxclient/postinst" "${packaging}/python3-pyxclient/prerm")
zav_package(programs pyxctl admin "shows, follows and examines the device's threat log"
  "${threat_log}pyxctl shows the log on a terminal, on a page for a browser or for other\n\
programs, follows it, and tells what is wrong with the service or its files."
  DEPENDS "libpyxclient1 (>= ${PROJECT_VERSION})" SUGGESTS "zav-pyx-plugin")

set(CPACK_COMPONENTS_ALL plugin client development python programs)
# Libraries of the project itself or of the platform, which no installed package holds; who needs the former names the
# package, and the latter are there where the daemon is.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/client")
if(ZAV_PLATFORM_ROOT)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
    "${ZAV_PLATFORM_ROOT}/lib" "${ZAV_PLATFORM_ROOT}/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
else()
  zav_package(host dpm-host devel "host for plug-ins of the device policy manager, for developers"
    "dpm-host loads a plug-in on a machine that is not the device, as the device\n\
policy manager does on one, and drives it by commands. With it come the headers\n\
and libraries of a stand-in for the device's platform, and device-root, which\n\
gives a program an /opt and a /tmp of its own."
    RECOMMENDS "zav-pyx-plugin" SUGGESTS "pyxctl")
  list(APPEND CPACK_COMPONENTS_ALL host platform)
  set(CPACK_COMPONENT_HOST_GROUP host)
  set(CPACK_COMPONENT_PLATFORM_GROUP host)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/platform/dlog"
    "${PROJECT_BINARY_DIR}/platform/dpm" "${PROJECT_BINARY_DIR}/platform/klay")
endif()

# Beside each package whose users they are for.
set(examples "${PROJECT_SOURCE_DIR}/client/examples")
set(doc "${CMAKE_INSTALL_DATADIR}/doc")
install(FILES "${examples}/report.c" "${examples}/threats.cpp"
  DESTINATION "${doc}/libpyxclient-dev/examples" COMPONENT development)
install(FILES "${examples}/watch.py" DESTINATION "${doc}/python3-pyxclient/examples" COMPONENT python)
install(FILES "${examples}/report.sh" "${examples}/shipping/rsyslog.conf" "${examples}/shipping/ship.sh"
  DESTINATION "${doc}/pyxctl/examples" COMPONENT programs)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Each package has its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_DEBIAN_PACKAGE_SOURCE "zav-pyx-plugin")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "zav-pyx-plugin maintainers <maintainers@zav-pyx-plugin.example>" CACHE STRING
    "Who answers for the Debian packages")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/FinishPackages.cmake")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}")
set(CPACK_OUTPUT_FILE_PREFIX "${PROJECT_SOURCE_DIR}/build/packages")
include(CPack)
