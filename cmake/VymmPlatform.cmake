# The device platform's libraries as Debian packages them for Linux hosts:
# headers under /usr/include/android, libraries in <multiarch libdir>/android.
include_guard(GLOBAL)

set(VYMM_ANDROID_INCLUDE_DIR "/usr/include/android" CACHE PATH "Platform headers")

if(NOT VYMM_ANDROID_LIB_DIR)
  set(_vymm_multiarch "${CMAKE_LIBRARY_ARCHITECTURE}")
  if(NOT _vymm_multiarch)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-multiarch
                    OUTPUT_VARIABLE _vymm_multiarch OUTPUT_STRIP_TRAILING_WHITESPACE)
  endif()
  set(VYMM_ANDROID_LIB_DIR "/usr/lib/${_vymm_multiarch}/android" CACHE PATH "Platform libraries")
endif()

# Imported targets keep their include directories as system ones, so the
# platform headers' own warnings stay out of ours.
function(vymm_import_platform_library target name)
  if(TARGET ${target})
    return()
  endif()
  find_library(_vymm_lib_${name} NAMES ${name} PATHS ${VYMM_ANDROID_LIB_DIR} NO_DEFAULT_PATH)
  if(NOT _vymm_lib_${name})
    message(FATAL_ERROR "lib${name} not found in ${VYMM_ANDROID_LIB_DIR}; run 'make deps'")
  endif()
  add_library(${target} SHARED IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES
    IMPORTED_LOCATION "${_vymm_lib_${name}}"
    INTERFACE_INCLUDE_DIRECTORIES "${VYMM_ANDROID_INCLUDE_DIR}")
endfunction()

vymm_import_platform_library(android::utils utils)
vymm_import_platform_library(android::log log)
# Its trace calls are the host's do-nothing ones.
vymm_import_platform_library(android::cutils cutils)
vymm_import_platform_library(android::base base)
