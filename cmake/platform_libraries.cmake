# corvi_platform: the Windows system libraries that the product links, and nothing else.
add_library(corvi_platform INTERFACE)
target_link_libraries(corvi_platform INTERFACE
  msi shlwapi shell32 ole32 oleaut32 uuid setupapi advapi32 user32)
if(MSVC)
  target_link_libraries(corvi_platform INTERFACE taskschd xmllite)
else()
  get_filename_component(compiler_directory ${CMAKE_CXX_COMPILER} DIRECTORY)
  find_program(CORVI_DLLTOOL x86_64-w64-mingw32-dlltool HINTS ${compiler_directory} REQUIRED)
  set(xmllite_library ${CMAKE_BINARY_DIR}/libxmllite.a)
  add_custom_command(
    OUTPUT ${xmllite_library}
    # Relative names: the tool makes symbols of them.
    COMMAND ${CORVI_DLLTOOL} -d ${CMAKE_CURRENT_LIST_DIR}/xmllite.def -l libxmllite.a -t xmllite
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    DEPENDS ${CMAKE_CURRENT_LIST_DIR}/xmllite.def
    VERBATIM)
  add_custom_target(corvi_xmllite DEPENDS ${xmllite_library})
  add_dependencies(corvi_platform corvi_xmllite)
  target_link_libraries(corvi_platform INTERFACE ${xmllite_library})
endif()
