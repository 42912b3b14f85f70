# Corvi_CA.dll: one self-contained file, and its symbols in a second one beside it.
configure_file(actions/vendor_site.h.in generated/actions/vendor_site.h @ONLY)

add_library(Corvi_CA SHARED actions/Corvi_CA.def)
corvi_version_resource(Corvi_CA VFT_DLL "Windows Installer custom actions" Corvi_CA.dll)
target_link_libraries(Corvi_CA PRIVATE corvi_core)
set_target_properties(Corvi_CA PROPERTIES PREFIX "")
if(NOT MSVC)
  target_link_options(Corvi_CA PRIVATE
    -static -Wl,--dynamicbase,--nxcompat,--high-entropy-va,--gc-sections,--exclude-all-symbols)
endif()
corvi_finish(Corvi_CA Corvi_CA.dll)
