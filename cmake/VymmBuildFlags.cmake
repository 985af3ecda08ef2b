# One place for warning flags and sanitizer builds.
include_guard(GLOBAL)

option(VYMM_WERROR "Treat warnings as errors" OFF)
set(VYMM_SANITIZE "" CACHE STRING "Comma-separated sanitizers, e.g. address,undefined or thread")

function(vymm_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(VYMM_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Directory-scoped, so a parent project that pulls us in keeps its own flags.
if(VYMM_SANITIZE)
  add_compile_options(-fsanitize=${VYMM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VYMM_SANITIZE})
endif()
if(VYMM_SANITIZE MATCHES "thread")
  add_library(vymm_tsan_suppressions OBJECT ${CMAKE_CURRENT_LIST_DIR}/TsanSuppressions.cpp)
  link_libraries(vymm_tsan_suppressions)
endif()
