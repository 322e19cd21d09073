# What other programs of the panel build against: the libraries of support/ and store/ with all their headers, found by
# find_package(arsp) or as the pkg-config module "arsp". Everything in it finds its prefix by its own place, so the
# installed tree may be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ARSP_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/arsp)

# Makes arsp_<folder> part of the package, as arsp::<folder>; its headers are included as "<folder>/<file>.h".
function(arsp_package_library folder)
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  target_sources(arsp_${folder} PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${headers})
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
