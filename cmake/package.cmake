# What is installed. The component "runtime" is for who administers the panel: both programs with their manual pages,
# completions and documents.
#
# The component "development" is for other programs of the panel: the libraries of support/ and store/ with their
# interface headers, found by find_package(arsp) or as the pkg-config module "arsp". Its files refer to each other by
# relative paths, so the installed tree may be moved.
set(CMAKE_INSTALL_DOCDIR "share/doc/arspctl" CACHE PATH "Documents")
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Makes the program part of the package. The further arguments are headers of libraries that are compiled into it
# without being linked. A program with static libraries has a bill of materials, which lists them.
function(arsp_package_program program)
  install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT runtime)
  if(NOT ARSP_STATIC_LIBRARIES)
    return()
  endif()
  list(TRANSFORM ARGN PREPEND --header=)
  set(map ${CMAKE_CURRENT_BINARY_DIR}/${program}.map)
  set(bill ${CMAKE_CURRENT_BINARY_DIR}/${program}.spdx.json)
  set(script ${PROJECT_SOURCE_DIR}/cmake/bill_of_materials.py)
  target_link_options(${program} PRIVATE LINKER:-Map=${map})
  add_custom_command(
    OUTPUT ${bill}
    COMMAND ${script} --program $<TARGET_FILE:${program}> --version ${PROJECT_VERSION} --map ${map} --build
            ${PROJECT_BINARY_DIR} ${ARGN} --output ${bill}
    DEPENDS ${program} ${script}
    VERBATIM)
  add_custom_target(${program}_bill_of_materials ALL DEPENDS ${bill})
  install(FILES ${bill} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)
endfunction()

install(FILES doc/arspctl.8 doc/arspinfo.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT runtime)
install(FILES doc/kel.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT runtime)
foreach(program IN ITEMS arspctl arspinfo)
  install(
    FILES completion/${program}.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME ${program}
    COMPONENT runtime)
endforeach()
install(FILES completion/_arspctl completion/_arspinfo DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions
        COMPONENT runtime)
install(
  FILES CHANGELOG.md LICENSE README.md SECURITY.md docs/database.md docs/failures.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT runtime)
install(FILES docs/examples/responder.py DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT runtime)

set(ARSP_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/arsp)

# Makes arsp_<folder> part of the package, as arsp::<folder>. The further arguments are its interface headers, included
# as "<folder>/<file>.h"; the other headers of the folder are not installed.
function(arsp_package_library folder)
  target_sources(arsp_${folder} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${ARGN})
  set_target_properties(arsp_${folder} PROPERTIES EXPORT_NAME ${folder})
  add_library(arsp::${folder} ALIAS arsp_${folder})
  install(
    TARGETS arsp_${folder}
    EXPORT arsp
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/arsp COMPONENT development)
endfunction()

install(
  EXPORT arsp
  NAMESPACE arsp::
  FILE arsp-targets.cmake
  DESTINATION ${ARSP_CONFIG_DIR}
  COMPONENT development)
configure_package_config_file(cmake/arsp-config.cmake.in arsp-config.cmake INSTALL_DESTINATION ${ARSP_CONFIG_DIR})
write_basic_package_version_file(arsp-config-version.cmake COMPATIBILITY SameMinorVersion)
install(
  FILES ${CMAKE_CURRENT_BINARY_DIR}/arsp-config.cmake ${CMAKE_CURRENT_BINARY_DIR}/arsp-config-version.cmake
  DESTINATION ${ARSP_CONFIG_DIR}
  COMPONENT development)

file(RELATIVE_PATH ARSP_PREFIX_FROM_PC ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/arsp.pc.in arsp.pc @ONLY)
install(
  FILES ${CMAKE_CURRENT_BINARY_DIR}/arsp.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
