# Writes ombry-miner(1): help2man turns the miner's --help into the page and
# adds the sections of the include file. --help's "Exit codes:" heading
# becomes the page's EXIT STATUS section.
#   cmake -DHELP2MAN=... -DMINER=... -DVERSION=... -DINCLUDE=... -DOUTPUT=... -P ManualPage.cmake
execute_process(
  COMMAND ${HELP2MAN} --no-info --section=1 --version-string=${VERSION} "--source=ombry-miner ${VERSION}"
          --include=${INCLUDE} --output=${OUTPUT}.tmp ${MINER}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "help2man failed (${result}) on ${MINER}")
endif()
file(READ ${OUTPUT}.tmp page)
string(FIND "${page}" ".SS \"Exit codes:\"" at)
if(at EQUAL -1)
  message(FATAL_ERROR "--help has no 'Exit codes:' heading for the EXIT STATUS section")
endif()
string(REPLACE ".SS \"Exit codes:\"" ".SH \"EXIT STATUS\"" page "${page}")
file(WRITE ${OUTPUT} "${page}")
file(REMOVE ${OUTPUT}.tmp)
