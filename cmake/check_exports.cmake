# Fails unless the library's dynamic symbol table defines exactly the 18 qbt_ functions.
# Usage: cmake -DLIBRARY=<path> -P check_exports.cmake
set(expected
  qbt_asyncbodyframe_frame_ready qbt_asyncbodyframe_is_valid qbt_asyncbodyframe_take_frame
  qbt_bodyframe_body_list qbt_bodyframe_bodymask qbt_bodyframe_floor_info qbt_bodyframe_info
  qbt_bodyframe_is_valid qbt_bodyframe_release qbt_bodytracker_create qbt_bodytracker_destroy
  qbt_bodytracker_fill_default_options qbt_bodytracker_is_depth_mirrored qbt_bodytracker_reset
  qbt_bodytracker_set_is_depth_mirrored qbt_bodytracker_update qbt_bodytracker_update_async qbt_error_info)
execute_process(COMMAND nm -D --defined-only ${LIBRARY} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${out}")
set(found "")
foreach(line ${lines})
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] +" "" name "${line}")
  list(APPEND found ${name})
endforeach()
list(SORT found)
list(SORT expected)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "exported symbols differ.\nexpected: ${expected}\nfound:    ${found}")
endif()
list(LENGTH found n)
message(STATUS "exactly ${n} qbt_ functions exported")
