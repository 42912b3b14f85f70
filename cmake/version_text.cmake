# Run by the build, each time: writes what this build is called. A build of the tagged commit v<version> with
# nothing changed is the release; every other one names the commit, and says so when files were changed.
# usage: cmake -D VERSION=1.0.0 -D SOURCE=folder -D OUTPUT=header -P version_text.cmake
function(corvi_git variable)
  execute_process(COMMAND git -C ${SOURCE} ${ARGN}
    OUTPUT_VARIABLE output ERROR_QUIET RESULT_VARIABLE failed OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(failed)
    set(output "")
  endif()
  set(${variable} "${output}" PARENT_SCOPE)
endfunction()

corvi_git(commit rev-parse --short=12 HEAD)
corvi_git(tag describe --exact-match --match v${VERSION} HEAD)
corvi_git(changed status --porcelain --untracked-files=no)

if(commit STREQUAL "")
  set(commit "unknown")
endif()
set(text "${VERSION}")
if(NOT tag STREQUAL "v${VERSION}" OR NOT changed STREQUAL "")
  set(text "${VERSION}-dev+${commit}")
  if(NOT changed STREQUAL "")
    string(APPEND text ".changed")
  endif()
endif()

set(header "#define CORVI_VERSION_TEXT \"${text}\"\n#define CORVI_COMMIT \"${commit}\"\n")
set(old "")
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
endif()
if(NOT old STREQUAL header)
  file(WRITE ${OUTPUT} "${header}")
endif()
