# Cross-compilation for Windows x64 kernel mode with mingw-w64 (Debian's
# g++-mingw-w64-x86-64-win32). The project's top CMakeLists.txt sees
# CMAKE_SYSTEM_NAME "Windows" and builds platform/windows only.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(AMBREL_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${AMBREL_MINGW_PREFIX}-gcc)
set(CMAKE_CXX_COMPILER ${AMBREL_MINGW_PREFIX}-g++)
set(CMAKE_RC_COMPILER ${AMBREL_MINGW_PREFIX}-windres)
set(CMAKE_AR ${AMBREL_MINGW_PREFIX}-ar CACHE FILEPATH "")
set(CMAKE_RANLIB ${AMBREL_MINGW_PREFIX}-ranlib CACHE FILEPATH "")
set(AMBREL_DLLTOOL ${AMBREL_MINGW_PREFIX}-dlltool CACHE FILEPATH "import-library generator")

# The compiler's own sysroot; never the build machine's headers or libraries.
set(CMAKE_FIND_ROOT_PATH /usr/${AMBREL_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# A kernel image links against no C run-time: CMake's probe programs cannot
# link either, so it only checks that the compiler compiles.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
