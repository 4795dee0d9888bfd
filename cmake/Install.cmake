# SPDX-License-Identifier: Apache-2.0
# What `cmake --install` puts in the prefix: the core library with its SONAME link chain,
# the host platform layer, the headers a daemon includes, the command-line tools, a
# pkg-config file, a CMake package (velmar::sastox, velmar::hostplat) and the Wireshark
# dissector.
#
# All install rules live here rather than beside each target, so that what ships can be
# read in one place and the targets' own CMakeLists.txt stay about building.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VELMAR_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/velmar_sastox)
set(VELMAR_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/velmar_sastox)

set_target_properties(velmar_sastox PROPERTIES EXPORT_NAME sastox)
# The core library needs its platform library, which is installed beside it. A program
# linked with --as-needed that calls no platform function does not list that library
# itself, and a program's own run path does not serve its libraries' dependencies: the
# core library must find it on its own, from whatever prefix it was installed to.
set_target_properties(velmar_sastox PROPERTIES INSTALL_RPATH "$ORIGIN")
set_target_properties(velmar_hostplat PROPERTIES EXPORT_NAME hostplat)
install(TARGETS velmar_sastox velmar_hostplat
  EXPORT velmar_sastox_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${VELMAR_INSTALL_INCLUDEDIR})

# The headers include each other by bare name, so they share one directory; it is a
# directory of their own because names such as dm_platform.h are too plain for
# /usr/include. The host platform headers come along: daemons use dm_platform.h, and
# host_*.h to steer the log and play the simulated devices.
file(GLOB VELMAR_PUBLIC_HEADERS CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/include/*.h
  ${PROJECT_SOURCE_DIR}/platform/host/include/*.h)
list(APPEND VELMAR_PUBLIC_HEADERS ${VELMAR_GENERATED_INCLUDEDIR}/velmar_version.h)
install(FILES ${VELMAR_PUBLIC_HEADERS} DESTINATION ${VELMAR_INSTALL_INCLUDEDIR})

# The tools find the libraries of their own prefix wherever it was installed.
set_target_properties(dmctl devmgr-device PROPERTIES
  INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
install(TARGETS dmctl devmgr-device RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# The Wireshark dissector of the UDP frames (a Lua plugin; docs/observing.md says how to
# load it). It needs nothing built, so it ships whether or not dmctl can capture.
install(FILES ${PROJECT_SOURCE_DIR}/dissectors/velmar_sastox.lua
  DESTINATION ${CMAKE_INSTALL_DATADIR}/velmar_sastox/wireshark)

# What a packager expects beside the library: the licence and the list of changes.
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/NEWS
  DESTINATION ${CMAKE_INSTALL_DOCDIR})

install(EXPORT velmar_sastox_targets
  NAMESPACE velmar::
  FILE velmar_sastoxTargets.cmake
  DESTINATION ${VELMAR_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/velmar_sastoxConfig.cmake.in
  ${PROJECT_BINARY_DIR}/velmar_sastoxConfig.cmake
  INSTALL_DESTINATION ${VELMAR_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velmar_sastoxConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/velmar_sastoxConfig.cmake
  ${PROJECT_BINARY_DIR}/velmar_sastoxConfigVersion.cmake
  DESTINATION ${VELMAR_INSTALL_CMAKEDIR})

# pkg-config: the prefix is found from the .pc file's own place, so that a tree
# installed with `cmake --install --prefix` elsewhere works as it stands.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(VELMAR_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  set(VELMAR_PC_PREFIX "\${pcfiledir}/..")
  string(REGEX MATCHALL "[^/]+" libdir_parts "${CMAKE_INSTALL_LIBDIR}")
  foreach(part IN LISTS libdir_parts)
    string(APPEND VELMAR_PC_PREFIX "/..")
  endforeach()
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/velmar_sastox.pc.in
  ${PROJECT_BINARY_DIR}/velmar_sastox.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velmar_sastox.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
