# Run by the tests and targets of Generated.cmake: generates the output in SCRATCH,
# then compares it with the committed one in DIRECTORY or, with UPDATE, replaces
# that.

string(REPLACE "," ";" PROTOS "${PROTOS}")
string(REPLACE "," ";" imports "${IMPORTS}")
list(TRANSFORM imports PREPEND "-I")
set(differing "")
foreach(proto IN LISTS PROTOS)
  string(REGEX REPLACE "\\.proto$" "" stem "${proto}")
  string(REPLACE "-" "_" python_stem "${stem}")
  cmake_path(GET stem PARENT_PATH folder)
  file(REMOVE_RECURSE "${SCRATCH}")
  file(MAKE_DIRECTORY "${SCRATCH}/${folder}")
  execute_process(
    COMMAND "${PROTOC}" ${imports} "--plugin=protoc-gen-orvane=${PLUGIN}"
            "--orvane_out=${PARAMETER}:${SCRATCH}" "${proto}"
    RESULT_VARIABLE failed ERROR_VARIABLE errors)
  if(failed)
    # Newer protocs warn of what we refuse, too.
    string(REGEX REPLACE "[^\n]*: warning: [^\n]*\n" "" errors "${errors}")
    file(WRITE "${SCRATCH}/${stem}.error.txt" "${errors}")
  endif()

  foreach(file IN ITEMS "${stem}.rpc.h" "${stem}.rpc.cc" "${stem}.client.h" "${stem}.client.cc"
                        "${python_stem}_client.py" "${stem}.error.txt")
    if(UPDATE AND EXISTS "${SCRATCH}/${file}")
      file(COPY_FILE "${SCRATCH}/${file}" "${DIRECTORY}/${file}" ONLY_IF_DIFFERENT)
    elseif(UPDATE)
      file(REMOVE "${DIRECTORY}/${file}")
    elseif(EXISTS "${SCRATCH}/${file}" OR EXISTS "${DIRECTORY}/${file}")
      # A file that only one side has differs too.
      execute_process(
        COMMAND diff -u -N "--label=${file}, committed" "--label=${file}, generated now"
                "${DIRECTORY}/${file}" "${SCRATCH}/${file}"
        RESULT_VARIABLE differs)
      if(differs)
        list(APPEND differing "${file}")
      endif()
    endif()
  endforeach()
endforeach()

if(differing)
  list(JOIN differing ", " differing)
  message(FATAL_ERROR "${differing}: not what protoc-gen-orvane makes now; if the change is meant, "
    "run\n  ${UPDATE_COMMAND}")
endif()
