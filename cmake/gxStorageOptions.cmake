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
# GXSTORAGE_BUILD_FUZZ needs clang; fuzz/CMakeLists.txt compiles its own
# coverage-instrumented copy of the library, so nothing is added here.

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
    # GCC 12 reports -Wrestrict inside libstdc++'s std::string code when it
    # inlines at -O2 (a known false positive of that release, not about our
    # code); keep the rest of the warnings as they are.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND
       CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12 AND
       CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
      target_compile_options(${target} PRIVATE -Wno-restrict)
    endif()
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
