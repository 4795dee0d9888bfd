# SPDX-License-Identifier: Apache-2.0
# The version macros of the public headers come from project(VERSION ...), so that the
# headers, the SONAME, the pkg-config file, the CMake package and velmar_version() can
# never disagree. The generated header joins the public ones (and is installed with them).
set(VELMAR_GENERATED_INCLUDEDIR ${PROJECT_BINARY_DIR}/include)
configure_file(${CMAKE_CURRENT_LIST_DIR}/velmar_version.h.in
  ${VELMAR_GENERATED_INCLUDEDIR}/velmar_version.h @ONLY)
target_include_directories(velmar_sastox PUBLIC $<BUILD_INTERFACE:${VELMAR_GENERATED_INCLUDEDIR}>)
