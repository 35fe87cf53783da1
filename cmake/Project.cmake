# Shared build settings and the helpers that every folder uses.

# Warnings are errors in the project's own test builds (scripts/test.sh turns
# this on), not for packagers, whose compilers may warn about other things.
option(OMBRY_WERROR "Treat warnings as errors" OFF)
add_compile_options(-Wall -Wextra -Wno-missing-field-initializers)
if(OMBRY_WERROR)
  add_compile_options(-Werror)
endif()

if(SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  add_compile_definitions(OMBRY_SANITIZE_ADDRESS=1)
elseif(SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
  add_compile_definitions(OMBRY_SANITIZE_THREAD=1)
elseif(NOT SANITIZE STREQUAL "")
  message(FATAL_ERROR "SANITIZE must be empty, address or thread")
endif()

# OMBRY_FUZZ=ON (clang only): the libFuzzer targets of tests/fuzz. All code
# is then built with coverage instrumentation, AddressSanitizer and UBSan.
option(OMBRY_FUZZ "Build the libFuzzer targets (clang only)" OFF)
if(OMBRY_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "OMBRY_FUZZ needs clang (see scripts/fuzz.sh)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# ombry_library(<name> [DEPS <targets>...])
# One static library per subsystem folder. Sources are the folder's *.cpp files
# (globbed, so adding a file needs no edit here); headers are included as
# "<folder>/<file>.h" from src/.
function(ombry_library name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  if(sources)
    add_library(${name} STATIC ${sources})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  else()
    # A subsystem that has no code yet still takes part in the graph.
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} INTERFACE ${ARG_DEPS})
  endif()
endfunction()

# ombry_program(<target>)
# The programs a user runs (the miner, the simulator's) all land in bin/ of
# the build tree, wherever their sources live.
function(ombry_program target)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
endfunction()

# ombry_test(<name> [DEPS <targets>...])
# One GoogleTest binary per test folder, from the folder's *.cpp files.
function(ombry_test name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_executable(${name} ${sources})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gtest_main Threads::Threads)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "OMBRY_BUILD_DIR=${PROJECT_BINARY_DIR}"
    # A second variable in ENVIRONMENT would be split off by the list above.
    ENVIRONMENT_MODIFICATION "OMBRY_SOURCE_DIR=set:${PROJECT_SOURCE_DIR}")
endfunction()
