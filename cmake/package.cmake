# Installation details that Debian packages want, and the packages themselves.
#
# With FSIC_PACKAGE_DEB, in a build configured for the system's paths (the deb preset:
# prefix /usr, /etc, /var), `cpack` makes
#   fsic         the command, its manual page, bash completion, the systemd units and
#                the example policy (a conffile);
#   libfsic0     the shared library;
#   libfsic-dev  the headers, the static library, fsic.pc and the CMake package;
# and the test `packages` checks them (tests/packages/check-packages.sh). The driver is
# a developers' tool and is not packaged.

# Installs a manual page of `section` in `component`, compressed in package builds.
function(fsic_install_man file section component)
  get_filename_component(name ${file} NAME)
  if(NOT FSIC_PACKAGE_DEB)
    install(FILES ${file} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
    return()
  endif()
  set(gz ${CMAKE_CURRENT_BINARY_DIR}/man/${name}.gz)
  add_custom_command(OUTPUT ${gz}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
    COMMAND ${CMAKE_COMMAND} -E copy ${file} ${CMAKE_CURRENT_BINARY_DIR}/man/${name}
    COMMAND gzip -9nf ${CMAKE_CURRENT_BINARY_DIR}/man/${name}
    DEPENDS ${file} VERBATIM)
  add_custom_target(fsic_man_${name} ALL DEPENDS ${gz})
  install(FILES ${gz} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
endfunction()

# Each package's copyright file and change log, the CPack settings and the packages'
# test. Called last, once every install rule is known.
function(fsic_package_setup)
  if(NOT FSIC_PACKAGE_DEB)
    return()
  endif()
  set(deb ${PROJECT_SOURCE_DIR}/packaging/deb)
  set(FSIC_DEB_VERSION ${PROJECT_VERSION}-1)
  configure_file(${deb}/changelog.in ${PROJECT_BINARY_DIR}/deb/changelog.Debian @ONLY)
  execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/deb/changelog.Debian
    COMMAND_ERROR_IS_FATAL ANY)
  foreach(pair cli:fsic runtime:libfsic0 dev:libfsic-dev)
    string(REPLACE ":" ";" pair ${pair})
    list(GET pair 0 component)
    list(GET pair 1 package)
    install(FILES ${deb}/copyright ${PROJECT_BINARY_DIR}/deb/changelog.Debian.gz
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
  endforeach()

  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGE_NAME fsic)
  set(CPACK_PACKAGE_VENDOR "fsic developers")
  set(CPACK_PACKAGE_CONTACT "fsic developers <fsic-devel@localhost>")
  set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
  # Each package's description below starts with its own synopsis; CPack would put a
  # summary that is not its default one in front of it.
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CPACK_PACKAGE_NAME} built using CMake")
  set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
  set(CPACK_STRIP_FILES ON)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_ALL cli runtime dev)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

  set(CPACK_DEBIAN_CLI_PACKAGE_NAME fsic)
  set(CPACK_DEBIAN_CLI_PACKAGE_SECTION admin)
  # libblockdev loads its LVM plugin at run time, where dpkg-shlibdeps cannot see it.
  set(CPACK_DEBIAN_CLI_PACKAGE_DEPENDS libblockdev-lvm2)
  set(CPACK_DEBIAN_CLI_PACKAGE_RECOMMENDS lvm2)
  set(CPACK_DEBIAN_CLI_PACKAGE_CONTROL_EXTRA
    ${deb}/conffiles ${deb}/postinst ${deb}/prerm ${deb}/postrm)
  set(CPACK_DEBIAN_CLI_DESCRIPTION [=[file integrity checker for whole machines
fsic keeps chosen files and directories of every volume of a machine (disk
partitions, LVM logical volumes, disk images) under integrity control: the
GOST R 34.11-94 hash and the attributes of each file, in a database that an
HMAC key authenticates. It mounts volumes read-only in a private mount
namespace and names them by identifiers that survive a reboot. A systemd
timer checks the machine daily once it is enabled.]=])

  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libfsic0)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
  # The shared library's shlibs file, and ldconfig run by dpkg's trigger rather than by
  # maintainer scripts (which CPack would write when the package has none).
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${deb}/libfsic0/triggers ${deb}/libfsic0/postinst ${deb}/libfsic0/postrm)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS libblockdev-lvm2)
  set(CPACK_DEBIAN_RUNTIME_DESCRIPTION [=[file integrity control library
libfsic finds the block devices of a machine, mounts them read-only on demand
and keeps lists of files and directories with their GOST R 34.11-94 hashes
and attributes, keyed by volume identifiers that survive a reboot.]=])

  set(CPACK_DEBIAN_DEV_PACKAGE_NAME libfsic-dev)
  set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
  # What fsic.pc requires (privately) for static linking, and pkg-config checks alike;
  # pkg-config itself, which the CMake package uses to find them.
  set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libfsic0 (= ${FSIC_DEB_VERSION}), libudev-dev, \
libblkid-dev, libblockdev-dev, libblockdev-utils-dev, libglib2.0-dev, pkg-config")
  set(CPACK_DEBIAN_DEV_DESCRIPTION [=[file integrity control library (development files)
libfsic finds the block devices of a machine, mounts them read-only on demand
and keeps lists of files and directories with their GOST R 34.11-94 hashes
and attributes. This package holds the headers, the static library, the
pkg-config file and the CMake package (find_package(fsic) gives fsic::fsic).]=])
  include(CPack)

endfunction()

# The packages' test (a macro: tests are registered in the directory's own scope).
macro(fsic_package_test)
  if(FSIC_PACKAGE_DEB)
    enable_testing()
    add_test(NAME packages COMMAND bash ${PROJECT_SOURCE_DIR}/tests/packages/check-packages.sh
      ${PROJECT_BINARY_DIR} ${PROJECT_VERSION})
    set_tests_properties(packages PROPERTIES LABELS package RUN_SERIAL TRUE
      SKIP_RETURN_CODE 77 TIMEOUT 600)
  endif()
endmacro()
