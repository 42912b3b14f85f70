# The version stands in the project() line alone. generated/actions/version_text.h carries it, with the commit, into
# the version resources and the tool; it is looked at in every build and written when it changes.
set(CORVI_VERSION_HEADER ${CMAKE_BINARY_DIR}/generated/actions/version_text.h)
set(corvi_write_version ${CMAKE_COMMAND} -D VERSION=${PROJECT_VERSION} -D SOURCE=${CMAKE_SOURCE_DIR}
    -D OUTPUT=${CORVI_VERSION_HEADER} -P ${CMAKE_CURRENT_LIST_DIR}/version_text.cmake)
execute_process(COMMAND ${corvi_write_version} COMMAND_ERROR_IS_FATAL ANY)
add_custom_target(corvi_version COMMAND ${corvi_write_version} BYPRODUCTS ${CORVI_VERSION_HEADER} VERBATIM)

# corvi_version_resource(TARGET TYPE DESCRIPTION FILE): a version resource for a program or DLL; TYPE is
# VFT_APP or VFT_DLL.
function(corvi_version_resource target type description file)
  set(CORVI_FILE_TYPE ${type})
  set(CORVI_FILE_DESCRIPTION ${description})
  set(CORVI_FILE_NAME ${file})
  get_filename_component(CORVI_INTERNAL_NAME ${file} NAME_WE)
  set(resource ${CMAKE_BINARY_DIR}/generated/${target}.rc)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/version.rc.in ${resource} @ONLY)
  set_source_files_properties(${resource} PROPERTIES
    OBJECT_DEPENDS ${CORVI_VERSION_HEADER} INCLUDE_DIRECTORIES ${CMAKE_BINARY_DIR}/generated)
  target_sources(${target} PRIVATE ${resource})
  add_dependencies(${target} corvi_version)
endfunction()
