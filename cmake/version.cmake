# Writes OUT (version.cpp) with the ids of the commit and tree; touches it only when they changed.
execute_process(COMMAND git rev-parse HEAD WORKING_DIRECTORY "${DIR}" OUTPUT_VARIABLE commit
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
execute_process(COMMAND git rev-parse "HEAD^{tree}" WORKING_DIRECTORY "${DIR}" OUTPUT_VARIABLE tree
                OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
string(REPEAT "0" 40 zeros)
foreach(v commit tree)
  if(NOT "${${v}}" MATCHES "^[0-9a-f]+$")
    set(${v} "${zeros}")
  endif()
endforeach()
set(text "#include \"node/version.h\"\n\nconst char *velmar_version() { return \"${commit}/${tree}\"; }\n")
if(EXISTS "${OUT}")
  file(READ "${OUT}" old)
endif()
if(NOT "${old}" STREQUAL "${text}")
  file(WRITE "${OUT}" "${text}")
endif()
