# What people need who write hosts. The same package configuration serves the build tree, where
# `find_package(VextSql)` finds it by -DVextSql_DIR=build/release, and the installation.
set(vext_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/VextSql)
set(vext_version_file ${CMAKE_BINARY_DIR}/VextSqlConfigVersion.cmake)

# vext_configure(OUTPUT INSTALL_DESTINATION PREFIX): the paths are those that are set in the caller.
macro(vext_configure output destination prefix)
  configure_package_config_file(VextSqlConfig.cmake.in ${output}
    INSTALL_DESTINATION ${destination} INSTALL_PREFIX ${prefix}
    PATH_VARS vext_include vext_plugins vext_drivers vext_data_folder vext_types)
endmacro()

# Host and plugin fit when the first two numbers are the same.
write_basic_package_version_file(${vext_version_file} COMPATIBILITY SameMinorVersion)

configure_file(${vext_header} ${CMAKE_BINARY_DIR}/include/vext/vext_plugin_interface.h COPYONLY)
set(vext_include include/vext)
set(vext_plugins plugins)
set(vext_drivers qtplugins)
set(vext_data_folder share/vext)
set(vext_types ${CMAKE_SOURCE_DIR}/types)
vext_configure(${CMAKE_BINARY_DIR}/VextSqlConfig.cmake ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR})

set(vext_include ${CMAKE_INSTALL_INCLUDEDIR}/vext)
set(vext_plugins ${CMAKE_INSTALL_LIBDIR}/vext/plugins)
set(vext_drivers ${CMAKE_INSTALL_LIBDIR}/vext/qtplugins)
set(vext_data_folder ${CMAKE_INSTALL_DATADIR}/vext)
set(vext_types ${CMAKE_INSTALL_DATADIR}/vext/types)
set(vext_installed_config ${CMAKE_CURRENT_BINARY_DIR}/VextSqlConfig.cmake)
vext_configure(${vext_installed_config} ${vext_config_dir} ${CMAKE_INSTALL_PREFIX})

# Paths relative to the file itself: an installation may be moved as a whole.
file(RELATIVE_PATH vext_pkgconfig_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" vext_pkgconfig_prefix ${vext_pkgconfig_prefix})
configure_file(vext-sql.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vext-sql.pc @ONLY)

install(FILES ${vext_header} DESTINATION ${vext_include} COMPONENT devel)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/types DESTINATION ${CMAKE_INSTALL_DATADIR}/vext
  COMPONENT devel FILES_MATCHING PATTERN *.d.ts)
install(FILES ${vext_installed_config} ${vext_version_file}
  DESTINATION ${vext_config_dir} COMPONENT devel)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vext-sql.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT devel)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/host
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${vext_package_devel}/examples COMPONENT devel)
