# Installs the headers below include/ZebTdx/, a CMake package with its dependencies, and a
# pkg-config file.
include(CMakePackageConfigHelpers)

set(ZEBTDX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZebTdx)

install(TARGETS ZebTdx EXPORT ZebTdxTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

foreach(header IN LISTS ZEBTDX_PUBLIC_HEADERS)
  get_filename_component(subsystem ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ZebTdx/${subsystem})
endforeach()
install(FILES
  ${ZEBTDX_GENERATED_DIR}/support/ZebTdxExport.h
  ${ZEBTDX_GENERATED_DIR}/support/ZebTdxVersion.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ZebTdx/support)

install(EXPORT ZebTdxTargets NAMESPACE ZebTdx:: DESTINATION ${ZEBTDX_CMAKE_DIR})
configure_package_config_file(cmake/ZebTdxConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ZebTdxConfig.cmake INSTALL_DESTINATION ${ZEBTDX_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZebTdxConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ZebTdxConfig.cmake
  ${PROJECT_BINARY_DIR}/ZebTdxConfigVersion.cmake
  DESTINATION ${ZEBTDX_CMAKE_DIR})

# The file computes the prefix from its own place, so that an installed tree may be moved.
file(RELATIVE_PATH ZEBTDX_PC_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/zebtdx.pc.in ${PROJECT_BINARY_DIR}/zebtdx.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zebtdx.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
