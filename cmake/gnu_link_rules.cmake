# Links what another compiler compiled with the GNU compiler of the same target.
set(CMAKE_CXX_CREATE_SHARED_LIBRARY
  "${CORVI_GNU_CXX} <LINK_FLAGS> -shared -o <TARGET> -Wl,--out-implib,<TARGET_IMPLIB> <OBJECTS> <LINK_LIBRARIES>")
set(CMAKE_CXX_LINK_EXECUTABLE "${CORVI_GNU_CXX} <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
