# Build-wide settings and helper functions shared by every CMakeLists.txt.

# --- sanitizers ------------------------------------------------------------
# GXSTORAGE_SANITIZERS applies to every target, GoogleTest included, so that
# the whole test executable runs instrumented. Undefined behaviour aborts the
# test instead of printing a warning and carrying on.
if(GXSTORAGE_SANITIZERS)
  set(_gx_san "-fsanitize=${GXSTORAGE_SANITIZERS}")
  add_compile_options(${_gx_san} -fno-omit-frame-pointer)
  add_link_options(${_gx_san})
  if(GXSTORAGE_SANITIZERS MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
    add_link_options(-fno-sanitize-recover=undefined)
  endif()
endif()

# --- fuzzing ---------------------------------------------------------------
# A fuzzing build instruments the library for coverage; the fuzz targets
# themselves add -fsanitize=fuzzer when linking (see fuzz/CMakeLists.txt).
if(GXSTORAGE_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "GXSTORAGE_BUILD_FUZZ needs clang (libFuzzer); "
                        "use the 'fuzz' preset or CXX=clang++")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# gxstorage_project_warnings(<target>)
# Warnings for code of this project (not for GoogleTest built from source).
function(gxstorage_project_warnings target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4)
    if(GXSTORAGE_WERROR)
      target_compile_options(${target} PRIVATE /WX)
    endif()
  else()
    target_compile_options(${target} PRIVATE -Wall -Wextra)
    if(GXSTORAGE_WERROR)
      target_compile_options(${target} PRIVATE -Werror)
    endif()
  endif()
endfunction()

# gxstorage_static_runtime(<target>)
# With mingw, link the GCC, C++ and winpthread runtimes statically into a DLL
# or executable, so that it runs (under Wine too) with only system DLLs beside
# it. A no-op elsewhere.
function(gxstorage_static_runtime target)
  if(MINGW)
    target_link_options(${target} PRIVATE -static-libgcc -static-libstdc++ -static)
  endif()
endfunction()

# gxstorage_executable(<name> <sources...>)
# An executable of this project: warnings, static mingw runtime, output in bin/.
function(gxstorage_executable name)
  add_executable(${name} ${ARGN})
  gxstorage_project_warnings(${name})
  gxstorage_static_runtime(${name})
endfunction()
