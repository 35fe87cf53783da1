file(REMOVE_RECURSE ${PREFIX})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX}
                RESULT_VARIABLE result OUTPUT_QUIET)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${result}")
endif()
foreach(path bin/ombry-miner share/man/man1/ombry-miner.1 lib/systemd/system/ombry-miner.service lib/udev/rules.d/60-ombry-xdma.rules
             lib/sysusers.d/ombry-miner.conf share/doc/ombry-miner/README.md
             share/doc/ombry-miner/examples/ombry-miner.json share/ombry-miner/bitstreams/README.md
             share/doc/ombry-miner/examples/prometheus/ombry-rules.yml
             share/doc/ombry-miner/examples/grafana/ombry-fleet.json)
  if(NOT EXISTS ${PREFIX}/${path})
    message(FATAL_ERROR "missing after install: ${path}")
  endif()
endforeach()
# The simulator stays out of a default install.
if(EXISTS ${PREFIX}/bin/ombry-sim-miner OR EXISTS ${PREFIX}/bin/ombry-sim-fuse)
  message(FATAL_ERROR "the simulator was installed without being asked for")
endif()
file(READ ${PREFIX}/lib/systemd/system/ombry-miner.service unit)
foreach(line "Type=notify" "Restart=on-failure" "ExecStart=${PREFIX}/bin/ombry-miner --config" "User=ombry"
             "WatchdogSec=")
  string(FIND "${unit}" "${line}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "the unit lacks '${line}':\n${unit}")
  endif()
endforeach()
execute_process(COMMAND ${PREFIX}/bin/ombry-miner --version OUTPUT_VARIABLE version RESULT_VARIABLE result)
if(NOT result EQUAL 0 OR NOT version MATCHES "^ombry-miner [0-9]+\\.[0-9]+\\.[0-9]+")
  message(FATAL_ERROR "the installed miner's --version: ${result} ${version}")
endif()
