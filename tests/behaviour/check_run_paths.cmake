# Looks at every built Linux file: it finds its libraries beside itself (or, in the folder windows-form, one level up),
# in no other folder, and above all not in the current one, for which an empty element of the path stands.
#
#   cmake -DFOLDER=<the build's bin folder> -DOBJDUMP=<objdump> -P check_run_paths.cmake

file(GLOB_RECURSE files ${FOLDER}/*)
# What tests make and take away again while this looks.
list(FILTER files EXCLUDE REGEX "^${FOLDER}/(scripted/)?run/")
set(count 0)
foreach(file IN LISTS files)
  execute_process(COMMAND ${OBJDUMP} -p ${file} OUTPUT_VARIABLE output ERROR_QUIET RESULT_VARIABLE result)
  # Some files are of other kinds.
  if(NOT result EQUAL 0 OR NOT output MATCHES "Dynamic Section")
    continue()
  endif()
  math(EXPR count "${count} + 1")
  set(expected "RUNPATH $ORIGIN")
  if(file MATCHES "/windows-form/")
    set(expected "RUNPATH $ORIGIN/..")
  endif()
  string(REGEX MATCHALL "\n +(RPATH|RUNPATH) [^\n]*" found "${output}")
  string(REGEX REPLACE "[ \n]+" " " found "${found}")
  string(STRIP "${found}" found)
  if(NOT found STREQUAL expected)
    message(SEND_ERROR "${file} should have ${expected}: \"${found}\"")
  endif()
endforeach()
if(count LESS 2)
  message(FATAL_ERROR "There are no built files in ${FOLDER}.")
endif()
message(STATUS "${count} files looked at")
