# fsic_link_pkgconfig(<PREFIX> <module>...): links the library with pkg-config modules and
# records them, so that fsic.pc (Requires.private) and the installed CMake package (the
# static target's interface) carry them to consumers.
function(fsic_link_pkgconfig prefix)
  pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET ${ARGN})
  target_link_libraries(fsic_objects PUBLIC PkgConfig::${prefix})
  set_property(GLOBAL APPEND PROPERTY FSIC_PC_REQUIRES_PRIVATE ${ARGN})
  list(JOIN ARGN " " modules)
  set_property(GLOBAL APPEND PROPERTY FSIC_CONFIG_DEPENDENCIES
    "pkg_check_modules(${prefix} REQUIRED IMPORTED_TARGET ${modules})")
  set_property(GLOBAL APPEND PROPERTY FSIC_PKGCONFIG_PREFIXES ${prefix})
endfunction()

# Gives the static library, as installed, the system libraries it needs.
function(fsic_export_static_dependencies)
  get_property(prefixes GLOBAL PROPERTY FSIC_PKGCONFIG_PREFIXES)
  foreach(prefix IN LISTS prefixes)
    target_link_libraries(fsic_static INTERFACE $<INSTALL_INTERFACE:PkgConfig::${prefix}>)
  endforeach()
endfunction()
