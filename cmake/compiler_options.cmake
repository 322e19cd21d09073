# How every file of the project is compiled and linked. Compilers, linkers and processors accept different flags, so
# each flag is tried before it is used.
include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckLinkerFlag)

# Stores in `result` the flags that `tool`, COMPILER or LINKER, accepts without a warning. Tries all of them together,
# which is fast, and one by one only if that fails.
function(arsp_accepted_flags result tool)
  set(CMAKE_REQUIRED_QUIET ON)
  string(MAKE_C_IDENTIFIER "ARSP_${tool}_ACCEPTS_${ARGN}" accepts)
  if(tool STREQUAL "COMPILER")
    # g++ accepts -Werror=format-security only with -Wformat; clang 14 warns about some flags without refusing them.
    set(CMAKE_REQUIRED_FLAGS "-Wall -Werror")
    check_cxx_compiler_flag("${ARGN}" ${accepts})
  else()
    check_linker_flag(CXX "LINKER:--fatal-warnings;${ARGN}" ${accepts})
  endif()

  set(accepted)
  if(${accepts})
    set(accepted ${ARGN})
  elseif(ARGC GREATER 3)
    foreach(flag IN LISTS ARGN)
      arsp_accepted_flags(one ${tool} ${flag})
      list(APPEND accepted ${one})
    endforeach()
  else()
    string(TOLOWER ${tool} name)
    message(STATUS "Left out, refused by this ${name}: ${ARGN}")
  endif()
  set(${result} ${accepted} PARENT_SCOPE)
endfunction()

# Linked privately by every target: a program outside the project inherits none of it.
add_library(arsp_build_options INTERFACE)
target_compile_definitions(arsp_build_options INTERFACE _GNU_SOURCE)

arsp_accepted_flags(
  warnings
  COMPILER
  -Wall
  -Wextra
  -Wpedantic
  -Wshadow
  -Wconversion
  -Wsign-conversion
  -Wold-style-cast
  -Wcast-align
  -Wcast-qual
  -Wnon-virtual-dtor
  -Woverloaded-virtual
  -Wformat=2
  -Werror=format-security
  -Wmissing-declarations
  -Wimplicit-fallthrough)
arsp_accepted_flags(more_warnings COMPILER -Wduplicated-cond -Wduplicated-branches -Wlogical-op) # of g++
target_compile_options(arsp_build_options INTERFACE ${warnings} ${more_warnings})
if(ARSP_WARNINGS_AS_ERRORS)
  target_compile_options(arsp_build_options INTERFACE -Werror)
endif()

# With sections of their own the linker drops the functions that a program does not call.
arsp_accepted_flags(sections COMPILER -ffunction-sections -fdata-sections)
target_compile_options(arsp_build_options INTERFACE ${sections})

if(ARSP_HARDEN AND NOT ARSP_SANITIZE)
  arsp_accepted_flags(stack COMPILER -fstack-protector-strong -fstack-clash-protection)
  arsp_accepted_flags(jumps_on_x86 COMPILER -fcf-protection)
  arsp_accepted_flags(jumps_on_arm64 COMPILER -mbranch-protection=standard)
  arsp_accepted_flags(zeroed_variables COMPILER -ftrivial-auto-var-init=zero)
  arsp_accepted_flags(mappings LINKER LINKER:-z,relro,-z,now LINKER:-z,noexecstack)

  # The C library warns about a level that it cannot provide with this compiler.
  set(CMAKE_REQUIRED_FLAGS "-Werror -O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_cxx_source_compiles("#include <cstdio>\nint main() {}" ARSP_COMPILER_FORTIFIES_AT_LEVEL_3)
  unset(CMAKE_REQUIRED_FLAGS)
  set(fortified -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=$<IF:$<BOOL:${ARSP_COMPILER_FORTIFIES_AT_LEVEL_3}>,3,2>)

  # Debug builds are for memcheck, which cannot report the use of a variable that is set to zero.
  target_compile_options(arsp_build_options INTERFACE ${stack} ${jumps_on_x86} ${jumps_on_arm64}
                                                      "$<$<NOT:$<CONFIG:Debug>>:${zeroed_variables};${fortified}>")
  target_compile_definitions(arsp_build_options INTERFACE _GLIBCXX_ASSERTIONS)
  target_link_options(arsp_build_options INTERFACE ${mappings})
endif()

if(ARSP_SANITIZE)
  target_compile_options(arsp_build_options INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all
                                                     -fno-omit-frame-pointer)
  target_link_options(arsp_build_options INTERFACE -fsanitize=address,undefined)
endif()
if(ARSP_COVERAGE)
  set(counted -fprofile-instr-generate=${PROJECT_BINARY_DIR}/profiles/%4m.profraw -fcoverage-mapping -fcoverage-mcdc)
  target_compile_options(arsp_build_options INTERFACE ${counted})
  target_link_options(arsp_build_options INTERFACE ${counted})
endif()
if(ARSP_BUILD_FUZZERS)
  target_compile_options(arsp_build_options INTERFACE -fsanitize=fuzzer-no-link)
endif()
