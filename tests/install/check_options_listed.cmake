# The options --help lists, each with the name of its value, are the ones the
# manual page and the README list, in the same order.
#   cmake -DMINER=... -DMANUAL=... -DREADME=... -P check_options_listed.cmake
execute_process(COMMAND ${MINER} --help OUTPUT_VARIABLE help RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "ombry-miner --help: ${result}")
endif()
# "  --name VALUE   what it does", or the same over two lines. (A semicolon
# would split CMake's list.)
string(REPLACE ";" "," help "${help}")
string(REGEX MATCHALL "\n  --[^\n]*" help_options "${help}")
list(TRANSFORM help_options REPLACE "^\n  ([^ ]+( [^ ]+)?).*" "\\1")
if(help_options STREQUAL "")
  message(FATAL_ERROR "no options found in --help:\n${help}")
endif()

# help2man writes each option as a tagged paragraph: ".TP", then the option
# and its value in bold and italics alone on the next line.
file(READ ${MANUAL} manual)
if(NOT manual MATCHES "\n\\.SH OPTIONS\n(.*)")
  message(FATAL_ERROR "the manual page has no OPTIONS section")
endif()
string(REGEX REPLACE "\n\\.SH .*" "" section "${CMAKE_MATCH_1}")
string(REGEX MATCHALL "\\.TP\n[^\n]+" manual_options "${section}")
list(TRANSFORM manual_options REPLACE "^\\.TP\n|\\\\f[BRI]|\\\\[,/]" "")
list(TRANSFORM manual_options REPLACE "\\\\-" "-")

file(STRINGS ${README} readme_options REGEX "^\\| `--")
list(TRANSFORM readme_options REPLACE "^\\| `([^`]+)`.*" "\\1")

foreach(where manual readme)
  if(NOT "${${where}_options}" STREQUAL "${help_options}")
    message(FATAL_ERROR "the ${where} lists the options\n  ${${where}_options}\nbut --help lists\n  ${help_options}")
  endif()
endforeach()
