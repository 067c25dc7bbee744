# Cross toolchain for the 32-bit texprt.sys: mingw-w64's i686 compilers and
# binutils. Used by the win-i686 preset.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)

set(TEXPRT_MINGW_TRIPLET i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain-mingw-common.cmake)
