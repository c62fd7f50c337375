# Cross toolchain: 64-bit Windows executables and DLLs with mingw-w64.
#
# The posix thread model is preferred (std::thread and std::mutex work); its
# winpthread runtime is linked statically, like libgcc and libstdc++, so the
# outputs need only system DLLs (see gxstorage_static_runtime).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(GXSTORAGE_MINGW_TRIPLE x86_64-w64-mingw32)

find_program(GXSTORAGE_MINGW_CXX NAMES ${GXSTORAGE_MINGW_TRIPLE}-g++-posix ${GXSTORAGE_MINGW_TRIPLE}-g++
             REQUIRED)
find_program(GXSTORAGE_MINGW_CC NAMES ${GXSTORAGE_MINGW_TRIPLE}-gcc-posix ${GXSTORAGE_MINGW_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER "${GXSTORAGE_MINGW_CXX}")
if(GXSTORAGE_MINGW_CC)
  set(CMAKE_C_COMPILER "${GXSTORAGE_MINGW_CC}")
endif()
set(CMAKE_RC_COMPILER ${GXSTORAGE_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${GXSTORAGE_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Test and tool executables run through Wine (ctest, gtest discovery, custom
# commands). The wrapper keeps its Wine prefix inside the build tree.
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_CURRENT_LIST_DIR}/wine-run.sh")
