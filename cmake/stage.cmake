# The stage: the folder whose files every test program and demonstration finds in C:\corvi.
set(CORVI_WINE_TEMPLATE ${CMAKE_BINARY_DIR}/wine-template)
# What every test program finds in C:\corvi.
set(CORVI_STAGE ${CMAKE_BINARY_DIR}/stage)
file(MAKE_DIRECTORY ${CORVI_STAGE})

add_custom_command(OUTPUT ${CORVI_STAGE}/Corvi_CA.dll
  COMMAND ${CMAKE_COMMAND} -E copy_if_different
          ${CORVI_OUTPUT_DIRECTORY}/Corvi_CA.dll ${CORVI_STAGE}/Corvi_CA.dll
  DEPENDS Corvi_CA ${CORVI_OUTPUT_DIRECTORY}/Corvi_CA.dll VERBATIM)
add_custom_target(stage_library ALL DEPENDS ${CORVI_STAGE}/Corvi_CA.dll)
add_custom_target(stage DEPENDS stage_library)

if(CORVI_BUILD_TOOL)
  add_custom_command(OUTPUT ${CORVI_STAGE}/corvi.exe
    COMMAND ${CMAKE_COMMAND} -E copy_if_different
            ${CORVI_OUTPUT_DIRECTORY}/corvi.exe ${CORVI_STAGE}/corvi.exe
    DEPENDS corvi ${CORVI_OUTPUT_DIRECTORY}/corvi.exe VERBATIM)
  add_custom_target(stage_tool ALL DEPENDS ${CORVI_STAGE}/corvi.exe)
  add_dependencies(stage stage_tool)
endif()

# corvi_add_fixture(NAME SOURCE...): a helper program that the tests find as C:\corvi\NAME.exe.
function(corvi_add_fixture name)
  add_executable(fixture_${name} ${ARGN})
  target_link_libraries(fixture_${name} PRIVATE corvi_warnings)
  target_compile_definitions(fixture_${name} PRIVATE UNICODE _UNICODE NOMINMAX _WIN32_WINNT=0x0A00)
  target_link_options(fixture_${name} PRIVATE -static -s)
  set_target_properties(fixture_${name} PROPERTIES
    OUTPUT_NAME ${name} RUNTIME_OUTPUT_DIRECTORY ${CORVI_STAGE})
  add_dependencies(stage fixture_${name})
endfunction()

# corvi_add_fixture_library(NAME SOURCE...): the same for C:\corvi\NAME.dll; a .def may be among the
# sources.
function(corvi_add_fixture_library name)
  add_library(fixture_${name} SHARED ${ARGN})
  target_link_libraries(fixture_${name} PRIVATE corvi_warnings)
  target_compile_definitions(fixture_${name} PRIVATE UNICODE _UNICODE NOMINMAX _WIN32_WINNT=0x0A00)
  target_link_options(fixture_${name} PRIVATE -static -s)
  set_target_properties(fixture_${name} PROPERTIES
    PREFIX "" OUTPUT_NAME ${name} RUNTIME_OUTPUT_DIRECTORY ${CORVI_STAGE})
  add_dependencies(stage fixture_${name})
endfunction()

# corvi_stage_file(SOURCE [NAME]): a file as it is, found as C:\corvi\NAME.
function(corvi_stage_file source)
  get_filename_component(source ${source} ABSOLUTE)
  get_filename_component(name ${source} NAME)
  if(ARGC GREATER 1)
    set(name ${ARGV1})
  endif()
  add_custom_command(OUTPUT ${CORVI_STAGE}/${name}
    COMMAND ${CMAKE_COMMAND} -E copy ${source} ${CORVI_STAGE}/${name}
    DEPENDS ${source} VERBATIM)
  add_custom_target(stage_${name} DEPENDS ${CORVI_STAGE}/${name})
  add_dependencies(stage stage_${name})
endfunction()

# corvi_add_package(NAME SOURCE.wxs [ARGUMENT...] [NEEDS TARGET...]): a package that wixl makes, found as
# C:\corvi\NAME.msi. Files that it carries are named relative to the stage ("Corvi_CA.dll"), because wixl
# finds no absolute path; the targets that put them there stand behind NEEDS ("fixture_suite_tool",
# "stage_StartHX.xml"). Further arguments go to wixl ("-D" "Version=1.2.3").
function(corvi_add_package name source)
  cmake_parse_arguments(package "" "" "NEEDS" ${ARGN})
  get_filename_component(source ${source} ABSOLUTE)
  set(output ${CORVI_STAGE}/${name}.msi)
  file(GLOB includes CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/package/*.wxi)
  set(builder ${CMAKE_SOURCE_DIR}/package/build_package.sh)
  add_custom_command(OUTPUT ${output}
    COMMAND sh ${builder} ${output} ${source} ${package_UNPARSED_ARGUMENTS}
    WORKING_DIRECTORY ${CORVI_STAGE}
    DEPENDS ${source} ${includes} ${builder} ${CMAKE_SOURCE_DIR}/package/finish_package.py
            ${CORVI_STAGE}/Corvi_CA.dll ${package_NEEDS} VERBATIM)
  add_custom_target(package_${name} DEPENDS ${output})
  add_dependencies(package_${name} stage_library ${package_NEEDS})
  add_dependencies(stage package_${name})
endfunction()
