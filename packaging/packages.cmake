# `cpack -G DEB` makes the packages lumo and lumo-tools, and one with the debug symbols of each.

set(LUMO_MAINTAINER "The lumo maintainers <lumo@example.org>" CACHE STRING "Whom the packages name as maintainer")
set(LUMO_PACKAGE_RELEASE 1 CACHE STRING "Debian revision of the packages")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR lumo)
set(CPACK_PACKAGE_CONTACT "${LUMO_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_VERBATIM_VARIABLES ON)

set(CPACK_COMPONENTS_ALL daemon)
if(TARGET lumo-feed OR TARGET lumo-web OR TARGET lumo-top)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/packaging/finish-trees.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/packaging/finish-debug-packages.cmake)
set(CPACK_LUMO_PACKAGING ${CMAKE_BINARY_DIR}/packaging)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${LUMO_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME lumo)
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | systemd-sysusers, \
systemd | systemd-standalone-tmpfiles | systemd-tmpfiles")
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS lumo-tools)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "HTTP Live Streaming playlist manager
Keeps the playlists of live channels: producers report MPEG-TS segments in
lines of text, and lumo writes live, on-demand and time-shifted playlists,
deletes what is too old, lets a stand-in take over when a producer fails, and
picks a recording up again after a restart.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME lumo-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "lumo (= ${PROJECT_VERSION}-${LUMO_PACKAGE_RELEASE}), ffmpeg, \
systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "feeder and web front end for lumo
Puts channels on air with lumo: lumo-feed runs ffmpeg and reports its
segments, lumo-web serves playlists, segments and a page that plays them, and
lumo-top shows what every channel is doing.")

# What belongs to a package and to no installation by hand.
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  file(GLOB CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA CONFIGURE_DEPENDS packaging/${package}/*)
  configure_file(packaging/changelog.in packaging/${component}/changelog.Debian @ONLY)
  configure_file(packaging/copyright packaging/${component}/copyright COPYONLY)
endforeach()

include(CPack)
