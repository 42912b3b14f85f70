# corvi_product_options: how the product is compiled. corvi_warnings: what every source here must pass.
add_library(corvi_warnings INTERFACE)
add_library(corvi_product_options INTERFACE)
target_link_libraries(corvi_product_options INTERFACE corvi_warnings)
target_compile_definitions(corvi_product_options INTERFACE
  UNICODE _UNICODE NOMINMAX _WIN32_WINNT=0x0A00)
if(MSVC)
  # C4459: a parameter may be called as a function of the C library is (time, system).
  target_compile_options(corvi_warnings INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:/W4;/WX;/permissive-;/utf-8;/wd4459>)
  # _vsnwprintf and localtime are meant: their bounds and their results are seen to at the call.
  target_compile_definitions(corvi_product_options INTERFACE _CRT_SECURE_NO_WARNINGS)
  # Some exports let an error out on purpose: "extern C" functions that throw, which /EHsc takes for impossible.
  string(REPLACE "/EHsc" "/EHs" CMAKE_CXX_FLAGS "${CMAKE_CXX_FLAGS}")
  target_compile_options(corvi_product_options INTERFACE $<$<COMPILE_LANGUAGE:CXX>:/guard:cf;/Zi>)
  # Symbols in a PDB, of a release too; /DEBUG alone would keep what nothing refers to.
  target_link_options(corvi_product_options INTERFACE /guard:cf /DEBUG /OPT:REF /OPT:ICF)
  set(CMAKE_MSVC_RUNTIME_LIBRARY "MultiThreaded$<$<CONFIG:Debug>:Debug>")
else()
  target_compile_options(corvi_warnings INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Wall;-Wextra;-Wpedantic;-Wshadow;-Wconversion;-Werror>)
  target_compile_options(corvi_product_options INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-g;-ffunction-sections;-fdata-sections;-fstack-protector-strong>)
  target_link_options(corvi_product_options INTERFACE -fstack-protector-strong)
  # The same commit gives the same bytes wherever and whenever it is built: no folder of this machine in the
  # symbols, no time in the headers.
  add_link_options(-Wl,--no-insert-timestamp)
  # The compiler cache hands over the same paths in relative form.
  file(RELATIVE_PATH to_source ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
  file(RELATIVE_PATH to_build ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR})
  string(REGEX REPLACE "/$" "" to_source "${to_source}")
  foreach(map ${to_source}=. generated=./${to_build}/generated ${CMAKE_SOURCE_DIR}=.)
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-ffile-prefix-map=${map}>)
  endforeach()
  # The optimised build is for size: the installer writes the DLL out for every single call.
  target_compile_options(corvi_product_options INTERFACE
    $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CONFIG:Release>>:-Os;-D_FORTIFY_SOURCE=2>)
  target_compile_definitions(corvi_product_options INTERFACE
    $<$<CONFIG:Debug>:_GLIBCXX_ASSERTIONS>)
endif()
