# What vext-run finds beside itself, as laid out in the build tree as it is installed. The folder
# `translations` is filled by the rules that compile them.
file(MAKE_DIRECTORY ${vext_data})
file(GLOB vext_libraries CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/library/*.js)
file(GLOB vext_examples CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/examples/*.js)

set(vext_copies "")
# vext_copy(FOLDER FILES...): copies into a folder of the program's files, whenever one changes.
function(vext_copy folder)
  foreach(file ${ARGN})
    get_filename_component(name ${file} NAME)
    add_custom_command(OUTPUT ${vext_data}/${folder}/${name}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${vext_data}/${folder}
      COMMAND ${CMAKE_COMMAND} -E copy ${file} ${vext_data}/${folder}/${name}
      DEPENDS ${file} VERBATIM)
    list(APPEND vext_copies ${vext_data}/${folder}/${name})
  endforeach()
  set(vext_copies ${vext_copies} PARENT_SCOPE)
endfunction()
vext_copy(library ${vext_libraries})
vext_copy(examples ${vext_examples})

add_custom_target(vext_program_files ALL DEPENDS ${vext_copies})
add_dependencies(vext-run vext_program_files)
install(DIRECTORY ${vext_data} DESTINATION ${CMAKE_INSTALL_DATADIR} COMPONENT run)
