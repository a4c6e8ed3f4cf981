# The Debian packages. `scripts/package` makes them from a clean tree.
set(VEXT_PACKAGE_RELEASE 1)
set(vext_nobody "Vext SQL maintainers <maintainers@vext-sql.invalid>")
set(VEXT_MAINTAINER "${vext_nobody}" CACHE STRING "Who answers for the packages: Name <address>")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vext-sql)
set(CPACK_PACKAGE_CONTACT "${VEXT_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL ${vext_components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${VEXT_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# Dependencies as Debian derives them from the libraries that are linked. Symbols that Qt calls
# private bring the package that names Qt's very version.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# CPack strips what gives its debug symbols to a package of its own. The version here is the
# package's, with its revision.
set(vext_same_version "(= ${PROJECT_VERSION}-${VEXT_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_PLUGIN_PACKAGE_NAME ${vext_package_plugin})
set(CPACK_DEBIAN_PLUGIN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PLUGIN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_RECOMMENDS libqt5sql5-sqlite)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_SUGGESTS
  "libqt5sql5-psql, libqt5sql5-mysql, libqt5sql5-ibase, libqt5sql5-odbc")
set(CPACK_COMPONENT_PLUGIN_DESCRIPTION "SQL for the scripts of Qt Script hosts
A plugin that gives ECMAScript programs in a host's QScriptEngine database
connections: SQL on any Qt SQL driver, at once or on a thread of its own.
.
With it comes a layer over Qt's SQL drivers, which adds placeholders and
cancelling to them.")

set(CPACK_DEBIAN_RUN_PACKAGE_NAME ${vext_package_run})
set(CPACK_DEBIAN_RUN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_RUN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_RUN_PACKAGE_DEPENDS "${vext_package_plugin} ${vext_same_version}")
set(CPACK_DEBIAN_RUN_PACKAGE_RECOMMENDS libqt5sql5-sqlite)
set(CPACK_COMPONENT_RUN_DESCRIPTION "run ECMAScript programs that work with SQL databases
Runs scripts with the SQL plugin of Vext, from files, from the command line
or at a prompt, and comes with a script library and examples.")

set(CPACK_DEBIAN_DEVEL_PACKAGE_NAME ${vext_package_devel})
set(CPACK_DEBIAN_DEVEL_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS
  "${vext_package_plugin} ${vext_same_version}, qtbase5-dev, qtscript5-dev")
set(CPACK_COMPONENT_DEVEL_DESCRIPTION "files for writing hosts of the Vext SQL plugin
The interface between host and plugin, what CMake and pkg-config need to find
the plugin, declarations of what scripts see, and a sample host.")

include(CPack)
