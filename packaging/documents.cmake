# Manual pages and what Debian wants to find about each package, compressed as it wants them.
set(vext_compressed "")
# vext_compress(SOURCE TARGET): without name and time in the result, so that equal input gives equal
# packages.
function(vext_compress source target)
  get_filename_component(folder ${target} DIRECTORY)
  add_custom_command(OUTPUT ${target}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${folder}
    COMMAND ${GZIP_PROGRAM} -9nc ${source} > ${target}
    DEPENDS ${source} VERBATIM)
  set(vext_compressed ${vext_compressed} ${target} PARENT_SCOPE)
endfunction()

file(GLOB vext_manuals CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/*.1)
foreach(manual ${vext_manuals})
  get_filename_component(name ${manual} NAME)
  vext_compress(${manual} ${CMAKE_BINARY_DIR}/documents/${name}.gz)
  install(FILES ${CMAKE_BINARY_DIR}/documents/${name}.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT run)
endforeach()

# The first heading of the changes is this version: "## 2.9.2 (2026-11-22)". A version without a
# day has not been released; its packages carry the day of the commit.
set(vext_changes ${CMAKE_SOURCE_DIR}/CHANGELOG.md)
vext_compress(${vext_changes} ${CMAKE_BINARY_DIR}/documents/changelog.gz)
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  string(TIMESTAMP vext_package_time "%a, %d %b %Y %H:%M:%S +0000" UTC)
else()
  string(TIMESTAMP vext_package_time "%a, %d %b %Y 00:00:00 +0000" UTC)
endif()
foreach(component ${vext_components})
  set(package ${vext_package_${component}})
  set(made ${CMAKE_BINARY_DIR}/documents/${package})
  configure_file(changelog.Debian.in ${made}/changelog.Debian @ONLY)
  vext_compress(${made}/changelog.Debian ${made}/changelog.Debian.gz)
  install(FILES ${made}/changelog.Debian.gz ${CMAKE_BINARY_DIR}/documents/changelog.gz copyright
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/lintian/${package})
    install(FILES lintian/${package}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component})
  endif()
endforeach()
add_custom_target(vext_documents ALL DEPENDS ${vext_compressed})
