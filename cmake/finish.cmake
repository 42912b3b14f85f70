# corvi_finish(TARGET FILE): what ships of a linked program, in CORVI_OUTPUT_DIRECTORY: FILE without symbols,
# FILE.debug with all of them for the compiler's own tools, and a PDB with the functions' names for the
# platform's debuggers.
if(NOT MSVC)
  find_package(Python3 COMPONENTS Interpreter REQUIRED)
endif()

function(corvi_finish target file)
  if(MSVC)
    # That compiler's linker leaves the symbols in a PDB beside the program (/DEBUG).
    set_target_properties(${target} PROPERTIES
      RUNTIME_OUTPUT_DIRECTORY $<1:${CORVI_OUTPUT_DIRECTORY}> PDB_OUTPUT_DIRECTORY $<1:${CORVI_OUTPUT_DIRECTORY}>)
    return()
  endif()
  get_filename_component(name ${file} NAME_WE)
  set(finished ${CORVI_OUTPUT_DIRECTORY}/${file})
  set(pdb ${CORVI_OUTPUT_DIRECTORY}/${name}.pdb)
  target_link_options(${target} PRIVATE -Wl,--pdb=unstripped/${name}.pdb)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/unstripped)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ${CMAKE_OBJCOPY} --preserve-dates --only-keep-debug $<TARGET_FILE:${target}> ${finished}.debug
    COMMAND ${CMAKE_OBJCOPY} --preserve-dates --strip-all --add-gnu-debuglink=${finished}.debug
            $<TARGET_FILE:${target}> ${finished}
    COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_SOURCE_DIR}/scripts/normalize_pdb.py
            unstripped/${name}.pdb ${pdb} ${CMAKE_BINARY_DIR}
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    BYPRODUCTS ${finished} ${finished}.debug ${pdb}
    VERBATIM)
endfunction()
