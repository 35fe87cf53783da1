# Installing: the miner, its manual page, its systemd unit, the udev rule for
# the boards' device nodes, the service user, documentation and an example
# settings file. The simulator and the tools stay out unless asked for. The
# Debian package (debian/, built by scripts/package.sh) installs through these
# rules too.

set(CMAKE_INSTALL_DOCDIR "share/doc/ombry-miner" CACHE PATH "Documentation directory")
include(GNUInstallDirs)
option(OMBRY_INSTALL_TOOLS "Install the board simulator and the test pool too" OFF)
# Debian's debhelper looks for units where the distribution's systemd keeps
# them (/lib/systemd/system before the /usr merge), so the package says where.
set(OMBRY_SYSTEMD_UNIT_DIR "lib/systemd/system" CACHE STRING "Where the unit goes (relative to the prefix, or absolute)")

# The package's version is the project's: a release needs its changelog entry.
file(STRINGS ${PROJECT_SOURCE_DIR}/debian/changelog changelog_head LIMIT_COUNT 1)
string(REGEX MATCH "^ombry-miner \\(([^)]+)\\)" changelog_match "${changelog_head}")
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "debian/changelog begins with '${changelog_head}', not an entry for ${PROJECT_VERSION}")
endif()

# The manual page is made from --help, with the sections --help does not
# print from dist/ombry-miner.h2m, so it lists exactly the options the miner
# takes.
find_program(HELP2MAN help2man REQUIRED)
set(OMBRY_MANUAL ${PROJECT_BINARY_DIR}/ombry-miner.1)
add_custom_command(
  OUTPUT ${OMBRY_MANUAL}
  COMMAND ${CMAKE_COMMAND} -DHELP2MAN=${HELP2MAN} -DMINER=$<TARGET_FILE:ombry-miner> -DVERSION=${PROJECT_VERSION}
          -DINCLUDE=${PROJECT_SOURCE_DIR}/dist/ombry-miner.h2m -DOUTPUT=${OMBRY_MANUAL}
          -P ${PROJECT_SOURCE_DIR}/cmake/ManualPage.cmake
  DEPENDS ombry-miner ${PROJECT_SOURCE_DIR}/dist/ombry-miner.h2m ${PROJECT_SOURCE_DIR}/cmake/ManualPage.cmake
  VERBATIM)
add_custom_target(manual-page ALL DEPENDS ${OMBRY_MANUAL})

install(TARGETS ombry-miner RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${OMBRY_MANUAL} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# The unit names the installed paths, so it is written when the prefix is
# known: at install time (cmake --install --prefix, or the package's /usr).
install(CODE "
  set(OMBRY_BIN_DIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(OMBRY_DOC_DIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
  set(OMBRY_DATA_DIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/ombry-miner\")
  configure_file(${PROJECT_SOURCE_DIR}/dist/ombry-miner.service.in ${PROJECT_BINARY_DIR}/ombry-miner.service @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/ombry-miner.service DESTINATION ${OMBRY_SYSTEMD_UNIT_DIR})
install(FILES ${PROJECT_SOURCE_DIR}/dist/60-ombry-xdma.rules DESTINATION lib/udev/rules.d)
install(FILES ${PROJECT_SOURCE_DIR}/dist/ombry-miner.sysusers DESTINATION lib/sysusers.d RENAME ombry-miner.conf)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${PROJECT_SOURCE_DIR}/dist/ombry-miner.json DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
# A farm's alert rules, scrape example and dashboard.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/dist/prometheus ${PROJECT_SOURCE_DIR}/dist/grafana
        DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/bitstreams DESTINATION ${CMAKE_INSTALL_DATADIR}/ombry-miner
        PATTERN ".gitkeep" EXCLUDE)

if(OMBRY_INSTALL_TOOLS)
  install(TARGETS ombry-sim-fuse ombry-sim-miner RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/tools/test_pool DESTINATION ${CMAKE_INSTALL_DATADIR}/ombry-miner
          FILES_MATCHING PATTERN "*.py")
endif()
