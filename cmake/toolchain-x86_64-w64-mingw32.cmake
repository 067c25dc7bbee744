# Cross toolchain for the 64-bit texprt.sys: mingw-w64's x86_64 compilers
# and binutils. Used by the win-x64 preset.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(TEXPRT_MINGW_TRIPLET x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)
