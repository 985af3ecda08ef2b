# cmake -DLIBRARY=<.so> -P CheckLibraryExports.cmake: fails unless the
# library's only defined dynamic symbol is launchVyMediaMonitorService.
execute_process(COMMAND nm -D --defined-only ${LIBRARY}
                OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(exported)
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] " "" name "${line}")
  list(APPEND exported ${name})
endforeach()
if(NOT exported STREQUAL "launchVyMediaMonitorService")
  message(FATAL_ERROR "${LIBRARY} exports: ${exported}")
endif()
