# Installing and packaging: the miner, its systemd unit, the udev rule for the
# boards' device nodes, the service user, documentation and an example
# settings file. The simulator and the tools stay out unless asked for.

set(CMAKE_INSTALL_DOCDIR "share/doc/ombry-miner" CACHE PATH "Documentation directory")
include(GNUInstallDirs)
option(OMBRY_INSTALL_TOOLS "Install the board simulator and the test pool too" OFF)

install(TARGETS ombry-miner RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
# The unit names the installed paths, so it is written when the prefix is
# known: at install time (cmake --install --prefix, or the package's /usr).
install(CODE "
  set(OMBRY_BIN_DIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  set(OMBRY_DOC_DIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DOCDIR}\")
  set(OMBRY_DATA_DIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/ombry-miner\")
  configure_file(${PROJECT_SOURCE_DIR}/dist/ombry-miner.service.in ${PROJECT_BINARY_DIR}/ombry-miner.service @ONLY)
")
install(FILES ${PROJECT_BINARY_DIR}/ombry-miner.service DESTINATION lib/systemd/system)
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

set(CPACK_PACKAGE_NAME ombry-miner)
set(CPACK_PACKAGE_VENDOR "ombry-miner developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Console miner for FPGA accelerator boards on PCI Express (CKB, Eaglesong)")
set(CPACK_PACKAGE_CONTACT "ombry-miner developers <ombry-miner@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
# The libraries it links, as dpkg-shlibdeps finds them, and what the unit and
# the maintainer script call.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "systemd, udev")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/dist/postinst)
include(CPack)
