# Every subsystem under src/ is an object library of its own, with its unit tests in a test
# executable of its own. The shared library is the union of the object libraries; a test
# executable links the object files of its subsystem and of the subsystems it builds on, so
# that private classes are testable while the shared library exports only the public API.

set_property(GLOBAL PROPERTY TERRANE_SUBSYSTEMS "")

# terrane_subsystem(<name> [DIRECTORY <dir>] [EXCLUDE <file>...] [DEPENDS <subsystem>...]
#                   [LIBRARIES <target>...] [TEST_LIBRARIES <target>...])
#   Sources: src/<dir>/*.cpp except *_test.cpp and the EXCLUDE files (relative to src/<dir>);
#   tests: src/<dir>/*_test.cpp. <dir> defaults to <name>.
#   DEPENDS names the subsystems whose objects the tests need, transitively listed.
function(terrane_subsystem name)
  cmake_parse_arguments(arg "" "DIRECTORY" "EXCLUDE;DEPENDS;LIBRARIES;TEST_LIBRARIES" ${ARGN})
  if(NOT arg_DIRECTORY)
    set(arg_DIRECTORY ${name})
  endif()
  set(dir ${CMAKE_CURRENT_SOURCE_DIR}/${arg_DIRECTORY})
  file(GLOB sources CONFIGURE_DEPENDS ${dir}/*.cpp)
  file(GLOB tests CONFIGURE_DEPENDS ${dir}/*_test.cpp)
  if(tests)
    list(REMOVE_ITEM sources ${tests})
  endif()
  foreach(excluded IN LISTS arg_EXCLUDE)
    list(REMOVE_ITEM sources ${dir}/${excluded})
  endforeach()

  set(target terrane_${name})
  if(sources)
    add_library(${target} OBJECT ${sources})
    target_link_libraries(${target} PUBLIC terrane_build_settings ${arg_LIBRARIES})
    set_property(GLOBAL APPEND PROPERTY TERRANE_SUBSYSTEMS ${target})
  else()
    # A subsystem whose code is still header-only contributes no objects.
    add_library(${target} INTERFACE)
    target_link_libraries(${target} INTERFACE terrane_build_settings ${arg_LIBRARIES})
  endif()
  set_property(TARGET ${target} PROPERTY TERRANE_DEPENDS ${arg_DEPENDS})

  if(TERRANE_BUILD_TESTS AND tests)
    set(test_target ${target}_tests)
    add_executable(${test_target} ${tests})
    set(objects ${target})
    foreach(dep IN LISTS arg_DEPENDS)
      if(NOT dep STREQUAL name)
        list(APPEND objects terrane_${dep})
      endif()
    endforeach()
    target_link_libraries(${test_target} PRIVATE ${objects} ${arg_TEST_LIBRARIES}
      GTest::gmock GTest::gtest_main)
    gtest_discover_tests(${test_target}
      DISCOVERY_TIMEOUT 60
      PROPERTIES LABELS unit ENVIRONMENT "TERRANE_SOURCE_DIR=${PROJECT_SOURCE_DIR}")
  endif()
endfunction()
