# Checks of the sources, which run no program of the build.
find_program(ARSP_CLANG_FORMAT NAMES clang-format REQUIRED)
find_program(ARSP_CLANG_TIDY NAMES clang-tidy REQUIRED)
find_program(ARSP_SHELLCHECK NAMES shellcheck REQUIRED)
find_program(ARSP_PYFLAKES NAMES pyflakes3 REQUIRED)

arsp_pytest(mutants ${CMAKE_CURRENT_SOURCE_DIR}/mutants)

# clang-tidy reads the headers of the standard library and of Boost once per folder instead of once per file: that takes
# a seventh of the time.
foreach(folder IN LISTS ARSP_FOLDERS)
  set(all ${CMAKE_CURRENT_BINARY_DIR}/all_of_${folder}.cpp)
  file(GLOB sources CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/${folder}/*.cpp)
  list(TRANSFORM sources PREPEND "// NOLINTNEXTLINE(bugprone-suspicious-include)\n#include \"")
  list(JOIN sources "\"\n" text)
  file(CONFIGURE OUTPUT ${all} CONTENT "${text}\"\n" @ONLY)
  add_test(NAME tidy.${folder}
           COMMAND ${ARSP_CLANG_TIDY} --quiet --config-file=${PROJECT_SOURCE_DIR}/.clang-tidy ${all} -- -std=c++20
                   -D_GNU_SOURCE -D_GLIBCXX_ASSERTIONS -I${PROJECT_SOURCE_DIR} -isystem ${smartcols_INCLUDE_DIRS})
  set_tests_properties(tidy.${folder} PROPERTIES COST 1000000)
endforeach()

file(GLOB_RECURSE sources CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/*.cpp
     ${PROJECT_SOURCE_DIR}/*.h ${PROJECT_SOURCE_DIR}/*.c)
list(FILTER sources EXCLUDE REGEX "^build/")
add_test(NAME format COMMAND ${ARSP_CLANG_FORMAT} --dry-run -Werror ${sources} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})

set(shell_scripts .ci/run debian/tests/smoke)
set(python_scripts bench cmake tests)
file(GLOB scripts CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/scripts/*
     ${PROJECT_SOURCE_DIR}/bench/*.sh)
foreach(script IN LISTS scripts)
  file(STRINGS ${PROJECT_SOURCE_DIR}/${script} first_line LIMIT_COUNT 1)
  if(first_line MATCHES "^#!.*python3")
    list(APPEND python_scripts ${script})
  elseif(first_line MATCHES "^#!.*sh$")
    list(APPEND shell_scripts ${script})
  endif()
endforeach()
add_test(NAME shellcheck COMMAND ${ARSP_SHELLCHECK} -x ${shell_scripts} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
add_test(NAME pyflakes COMMAND ${ARSP_PYFLAKES} ${python_scripts} WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
