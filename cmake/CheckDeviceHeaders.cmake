# Compiles each of SOURCES (comma-separated) with -fsyntax-only against the
# device's Binder headers from Debian's android-platform-frameworks-native-headers,
# unpacked (not installed) into WORK_DIR, instead of the host runtime's.
set(package android-platform-frameworks-native-headers)
set(headers ${WORK_DIR}/root/usr/include/android)
if(NOT EXISTS ${headers}/binder/IBinder.h)
  file(MAKE_DIRECTORY ${WORK_DIR})
  file(GLOB debs ${WORK_DIR}/${package}_*.deb)
  if(NOT debs)
    execute_process(COMMAND apt-get download ${package}
                    WORKING_DIRECTORY ${WORK_DIR} RESULT_VARIABLE result ERROR_VARIABLE error)
    file(GLOB debs ${WORK_DIR}/${package}_*.deb)
    if(NOT debs)
      message(FATAL_ERROR "could not download ${package} (${result}): ${error}")
    endif()
  endif()
  list(GET debs 0 deb)
  execute_process(COMMAND dpkg-deb -x ${deb} ${WORK_DIR}/root RESULT_VARIABLE result)
  if(NOT result EQUAL 0 OR NOT EXISTS ${headers}/binder/IBinder.h)
    message(FATAL_ERROR "could not unpack ${deb}")
  endif()
endif()

# The device headers forget <memory> and <limits>; a vendor build of a
# hand-written interface skips the interface checks.
set(flags -std=c++17 -fsyntax-only -include memory -include limits
    -DDO_NOT_CHECK_MANUAL_BINDER_INTERFACES
    -isystem ${headers} -isystem ${ANDROID_INCLUDE_DIR} -isystem ${JSON_INCLUDE_DIR}
    -I${SOURCE_DIR} -I${SOURCE_DIR}/client/include
    -isystem ${SOURCE_DIR}/platform/host/include
    -isystem ${SOURCE_DIR}/platform/host/qoview/include)
string(REPLACE "," ";" sources "${SOURCES}")
set(failed)
foreach(source IN LISTS sources)
  execute_process(COMMAND ${CXX} ${flags} ${source}
                  RESULT_VARIABLE result ERROR_VARIABLE error)
  if(NOT result EQUAL 0)
    message("${error}")
    list(APPEND failed ${source})
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "do not compile against the device's headers: ${failed}")
endif()
list(LENGTH sources count)
message("${count} sources compile against the device's Binder headers")
