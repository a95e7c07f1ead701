# Installs the SDK: libraries, public headers, fsic.pc and the CMake package
# (find_package(fsic) gives fsic::fsic, the shared library, and fsic::fsic_static).

# Components: `runtime` (the shared library), `dev` (what building against it needs),
# `cli` (the command, cli/), `driver` (test/); the Debian packages are made of the first
# three.
install(TARGETS fsic_shared fsic_static EXPORT fsicTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/fsic
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")

get_property(FSIC_PC_REQUIRES_PRIVATE GLOBAL PROPERTY FSIC_PC_REQUIRES_PRIVATE)
get_property(FSIC_PC_LIBS_PRIVATE GLOBAL PROPERTY FSIC_PC_LIBS_PRIVATE)
list(JOIN FSIC_PC_REQUIRES_PRIVATE " " FSIC_PC_REQUIRES_PRIVATE)
list(JOIN FSIC_PC_LIBS_PRIVATE " " FSIC_PC_LIBS_PRIVATE)
# The .pc file finds its prefix relative to itself, so that `cmake --install --prefix`
# anywhere gives a working SDK.
set(FSIC_PC_PREFIX "\${pcfiledir}")
string(REPLACE "/" ";" _fsic_pc_parts "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
foreach(_part IN LISTS _fsic_pc_parts)
  string(APPEND FSIC_PC_PREFIX "/..")
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/cmake/fsic.pc.in ${PROJECT_BINARY_DIR}/fsic.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/fsic.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)

get_property(FSIC_CONFIG_DEPENDENCIES GLOBAL PROPERTY FSIC_CONFIG_DEPENDENCIES)
list(JOIN FSIC_CONFIG_DEPENDENCIES "\n" FSIC_CONFIG_DEPENDENCIES)
set(FSIC_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/fsic)
install(EXPORT fsicTargets NAMESPACE fsic:: DESTINATION ${FSIC_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/fsicConfig.cmake.in
  ${PROJECT_BINARY_DIR}/fsicConfig.cmake INSTALL_DESTINATION ${FSIC_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/fsicConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/fsicConfig.cmake ${PROJECT_BINARY_DIR}/fsicConfigVersion.cmake
  DESTINATION ${FSIC_CMAKE_DIR} COMPONENT dev)
