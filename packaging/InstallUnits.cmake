# Run at install time, when the final prefix is known (cmake --install
# --prefix, or CPack's packaging prefix): writes the service units with the
# absolute paths of the installed executables and configuration.
# Expects CHD_UNIT_TEMPLATES, CHD_SBINDIR, CHD_BINDIR, CHD_INSTALL_CONFDIR and
# CHD_UNIT_STAGING to be set by the install code before it.
if(CHD_SBINDIR MATCHES "^/")
  set(CMAKE_INSTALL_FULL_SBINDIR "${CHD_SBINDIR}")
else()
  set(CMAKE_INSTALL_FULL_SBINDIR "${CMAKE_INSTALL_PREFIX}/${CHD_SBINDIR}")
endif()
if(CHD_BINDIR MATCHES "^/")
  set(CMAKE_INSTALL_FULL_BINDIR "${CHD_BINDIR}")
else()
  set(CMAKE_INSTALL_FULL_BINDIR "${CMAKE_INSTALL_PREFIX}/${CHD_BINDIR}")
endif()
set(CHD_DOC_DIR "${CMAKE_INSTALL_PREFIX}/share/doc/chd")
# Debian 12 keeps the units of packages in /lib/systemd/system; any other
# prefix gets them below itself.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(unit_dir /lib/systemd/system)
else()
  set(unit_dir "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
endif()
set(units)
foreach(template ${CHD_UNIT_TEMPLATES})
  get_filename_component(name "${template}" NAME_WLE)
  configure_file("${template}" "${CHD_UNIT_STAGING}/${name}" @ONLY)
  list(APPEND units "${CHD_UNIT_STAGING}/${name}")
endforeach()
file(INSTALL DESTINATION "${unit_dir}" TYPE FILE PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES ${units})
