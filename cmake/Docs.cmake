# SPDX-License-Identifier: Apache-2.0
# Manual pages, guides and examples, installed beside the libraries:
#   share/man/man1   dmctl(1), devmgr-device(1)      from man/*.1.md
#   share/man/man3   velmar_sastox(3), one page per header, and one page per exported
#                    name that leads to its header's page   from docs/reference.md
#   share/doc/velmar_sastox            README.md and docs/*.md (docs/perf/ too)
#   share/doc/velmar_sastox/examples   the example daemons in C
#
# The pages are made with pandoc at build time when it is installed
# (scripts/install-deps.sh installs it); without it they are skipped with a note and the
# rest of the build and install is unchanged.
include(GNUInstallDirs)

find_program(VELMAR_PANDOC pandoc)
if(VELMAR_PANDOC)
  set(velmar_man_dir ${PROJECT_BINARY_DIR}/man)
  set(velmar_man1_pages)
  foreach(page dmctl devmgr-device)
    set(out ${velmar_man_dir}/man1/${page}.1)
    add_custom_command(OUTPUT ${out}
      COMMAND ${PROJECT_SOURCE_DIR}/man/gen-man1.sh ${VELMAR_PANDOC}
              ${PROJECT_SOURCE_DIR}/man/${page}.1.md ${out} ${PROJECT_VERSION}
      DEPENDS ${PROJECT_SOURCE_DIR}/man/${page}.1.md ${PROJECT_SOURCE_DIR}/man/gen-man1.sh
      COMMENT "Manual page ${page}(1)"
      VERBATIM)
    list(APPEND velmar_man1_pages ${out})
  endforeach()

  # The number of section-3 files follows the reference, so the directory is made whole
  # by one command and a stamp stands for it.
  set(man3_stamp ${velmar_man_dir}/man3.stamp)
  add_custom_command(OUTPUT ${man3_stamp}
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${velmar_man_dir}/man3
    COMMAND ${PROJECT_SOURCE_DIR}/man/gen-man3.sh ${VELMAR_PANDOC}
            ${PROJECT_SOURCE_DIR}/docs/reference.md ${velmar_man_dir} ${PROJECT_VERSION}
    COMMAND ${CMAKE_COMMAND} -E touch ${man3_stamp}
    DEPENDS ${PROJECT_SOURCE_DIR}/docs/reference.md ${PROJECT_SOURCE_DIR}/man/gen-man3.sh
    COMMENT "Manual pages of section 3 from docs/reference.md"
    VERBATIM)
  add_custom_target(velmar_man ALL DEPENDS ${velmar_man1_pages} ${man3_stamp})

  install(FILES ${velmar_man1_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(DIRECTORY ${velmar_man_dir}/man3 DESTINATION ${CMAKE_INSTALL_MANDIR})
else()
  message(STATUS "pandoc not found: manual pages are not built (scripts/install-deps.sh installs it)")
endif()

install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR}
  FILES_MATCHING PATTERN "*.md")
file(GLOB VELMAR_EXAMPLE_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/*.c)
install(FILES ${VELMAR_EXAMPLE_SOURCES} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
