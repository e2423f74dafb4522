# Shared build settings, reached through INTERFACE targets rather than global flags.

add_library(pelsu_options INTERFACE)
target_compile_features(pelsu_options INTERFACE cxx_std_20)
target_compile_options(pelsu_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow
  -Wnon-virtual-dtor -Wcast-align -Wunused -Woverloaded-virtual -Wformat=2)
# GCC 12 at -O3 reports string concatenations of the standard library as overlapping copies
# (a known false positive of -Wrestrict).
target_compile_options(pelsu_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
if(PELSU_WERROR)
  target_compile_options(pelsu_options INTERFACE -Werror)
endif()
if(PELSU_SANITIZE)
  target_compile_options(pelsu_options INTERFACE -fsanitize=${PELSU_SANITIZE}
    -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(pelsu_options INTERFACE -fsanitize=${PELSU_SANITIZE})
endif()

if(PELSU_BUILD_FUZZ)
  # Coverage instrumentation for every library the fuzz targets reach.
  target_compile_options(pelsu_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

find_package(Threads REQUIRED)
target_link_libraries(pelsu_options INTERFACE Threads::Threads)

# pelsu_add_library(NAME SOURCES ... [DEPS ...])
function(pelsu_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC pelsu_options ${ARG_DEPS})
endfunction()

# pelsu_add_test(NAME SOURCES ... [DEPS ...] [LABELS ...])
# Labels: "threaded" marks tests that also run under ThreadSanitizer.
function(pelsu_add_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;LABELS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE pelsu_options ${ARG_DEPS} pelsu_testsupport
    GTest::gtest GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name}
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    DISCOVERY_TIMEOUT 60)
  # The discovery script flattens its PROPERTIES into one list and drops empty elements, which
  # splits list values such as ENVIRONMENT. The properties are therefore set by a script of our
  # own that ctest reads after the discovered tests, on the test list discovery leaves behind.
  set(environment "PELSU_SOURCE_DIR=${PROJECT_SOURCE_DIR};PELSU_BINARY_DIR=${PROJECT_BINARY_DIR};QT_QPA_PLATFORM=offscreen")
  set(script "${CMAKE_CURRENT_BINARY_DIR}/${name}_properties.cmake")
  file(WRITE ${script}
    "if(NOT \"\${${name}_TESTS}\" STREQUAL \"\")\n"
    "  set_tests_properties(\${${name}_TESTS} PROPERTIES ENVIRONMENT [==[${environment}]==])\n")
  if(ARG_LABELS)
    file(APPEND ${script}
      "  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS [==[${ARG_LABELS}]==])\n")
  endif()
  file(APPEND ${script} "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${script})
endfunction()
