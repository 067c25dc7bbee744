# texprt.sys: the library linked as a kernel-mode export driver, for the
# win-i686 and win-x64 presets (toolchains in cmake/toolchain-*.cmake).
#
# Products, in the build directory:
#   texprt.sys    the image, exporting exactly the names in texprt.def
#   libtexprt.a   its import library, for monitor drivers built with mingw-w64
# scripts/check-image verifies the image; `make driver` builds and checks both.
enable_language(ASM)
enable_language(RC)

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(TEXPRT_ARCH i686)
    # The entry point as the linker sees it: stdcall, so decorated.
    set(TEXPRT_ENTRY _DriverEntry@8)
    set(TEXPRT_IMAGE_BASE 0x10000)
else()
    set(TEXPRT_ARCH x64)
    set(TEXPRT_ENTRY DriverEntry)
    set(TEXPRT_IMAGE_BASE 0x140000000)
endif()

if(NOT TEXPRT_DDK_INCLUDE_DIR OR NOT EXISTS ${TEXPRT_DDK_INCLUDE_DIR}/ntifs.h)
    message(FATAL_ERROR "texprt.sys needs mingw-w64's DDK headers (TEXPRT_DDK_INCLUDE_DIR, set by the "
                        "toolchain file; found: '${TEXPRT_DDK_INCLUDE_DIR}')")
endif()
foreach(tool TEXPRT_WINDMC TEXPRT_DLLTOOL CMAKE_NM)
    if(NOT ${tool})
        message(FATAL_ERROR "texprt.sys: ${tool} is not set; configure with a preset (win-i686, win-x64)")
    endif()
endforeach()

set(TEXPRT_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
file(MAKE_DIRECTORY ${TEXPRT_GENERATED_DIR})

# CMake's defaults for Windows link every program with kernel32, user32 and
# the rest of the Win32 API; nothing of it exists in kernel mode.
set(CMAKE_C_STANDARD_LIBRARIES "")
set(CMAKE_CXX_STANDARD_LIBRARIES "")

file(GLOB TEXPRT_WINDOWS_SOURCES CONFIGURE_DEPENDS
    ${CMAKE_SOURCE_DIR}/platform/windows/*.cpp
    ${CMAKE_SOURCE_DIR}/platform/windows/*.S)

# ---------------------------------------------------------------- compiling

set(TEXPRT_DRIVER_COMPILE_OPTIONS
    # No hosted C library to lean on: no implicit assumptions about one.
    -ffreestanding
    # gcc's stack protector reads __stack_chk_guard and calls
    # __stack_chk_fail, both from libssp, a user-mode library.
    -fno-stack-protector
    # Kernel stacks are resident: there are no pages to commit ahead of a
    # large frame, so the probe gcc emits for one (___chkstk_ms) is only
    # cost, and one more routine from outside the kernel.
    -mno-stack-arg-probe
    # On x86 a driver may touch x87/MMX/SSE state only between
    # KeSaveFloatingPointState and KeRestoreFloatingPointState, and the
    # library's ordinary code never does: the compiler must not use those
    # registers on its own either (for copies, say). x64 would be more
    # forgiving; both images are built alike.
    -mgeneral-regs-only
    -Werror)
if(TEXPRT_ARCH STREQUAL "i686")
    list(APPEND TEXPRT_DRIVER_COMPILE_OPTIONS
        # x86 exception handling is frame-based (fs:[0]), not table-based;
        # .eh_frame would be dead weight in the image.
        -fno-asynchronous-unwind-tables
        # Without symbols a debugger follows the ebp chain to walk our
        # frames in a crash dump.
        -fno-omit-frame-pointer)
endif()
# x64 keeps gcc's default unwind tables: the kernel unwinds through every
# frame of ours when it dispatches an exception (PlatformGuardedCall, or a
# fault under a caller's __try), and a function without .pdata is taken for
# a leaf, which misreads its frame.

set(TEXPRT_DRIVER_DEFINITIONS
    _WIN32_WINNT=0x0602
    NTDDI_VERSION=0x06020000
    WINVER=0x0602)

# The library and the platform layer for Windows.
add_library(texprt_kernel_objects OBJECT ${TEXPRT_LIBRARY_SOURCES} ${TEXPRT_WINDOWS_SOURCES})
target_compile_options(texprt_kernel_objects PRIVATE
    $<$<COMPILE_LANGUAGE:CXX>:${TEXPRT_KERNEL_CXX_FLAGS}>
    ${TEXPRT_DRIVER_COMPILE_OPTIONS})
target_compile_definitions(texprt_kernel_objects PRIVATE ${TEXPRT_DRIVER_DEFINITIONS})
target_include_directories(texprt_kernel_objects PRIVATE ${CMAKE_SOURCE_DIR} ${TEXPRT_GENERATED_DIR})
# The DDK as system headers: its own code is not ours to hold to -Wundef and
# friends, and -Werror must not fail on it.
target_include_directories(texprt_kernel_objects SYSTEM PRIVATE ${TEXPRT_DDK_INCLUDE_DIR})

# ---------------------------------------------------------------- resources

# The message table: windmc turns the message file into a .rc, a binary
# table per language and a header; the header is named like the one the host
# build generates. windmc names its outputs after its input, hence the copy.
set(TEXPRT_MESSAGE_BASE texprt_messages)
set(TEXPRT_MESSAGE_RC ${TEXPRT_GENERATED_DIR}/${TEXPRT_MESSAGE_BASE}.rc)
set(TEXPRT_MESSAGE_HEADER ${TEXPRT_GENERATED_DIR}/${TEXPRT_MESSAGE_BASE}.h)
add_custom_command(
    OUTPUT ${TEXPRT_MESSAGE_RC} ${TEXPRT_MESSAGE_HEADER}
    COMMAND ${CMAKE_COMMAND} -E copy ${TEXPRT_MESSAGE_FILE}
            ${TEXPRT_GENERATED_DIR}/${TEXPRT_MESSAGE_BASE}.mc
    # -U: message texts in UTF-16, as the event log prefers them.
    COMMAND ${TEXPRT_WINDMC} -U -h ${TEXPRT_GENERATED_DIR} -r ${TEXPRT_GENERATED_DIR}
            ${TEXPRT_GENERATED_DIR}/${TEXPRT_MESSAGE_BASE}.mc
    DEPENDS ${TEXPRT_MESSAGE_FILE}
    WORKING_DIRECTORY ${TEXPRT_GENERATED_DIR}
    COMMENT "Compiling the message table"
    VERBATIM)

# Version block plus the message table, in one resource script so that the
# image has one .rsrc section.
configure_file(${CMAKE_SOURCE_DIR}/platform/windows/texprt.rc.in ${TEXPRT_GENERATED_DIR}/texprt.rc @ONLY)
set_source_files_properties(${TEXPRT_GENERATED_DIR}/texprt.rc PROPERTIES
    OBJECT_DEPENDS "${TEXPRT_MESSAGE_RC};${TEXPRT_MESSAGE_HEADER}")

# ---------------------------------------------------------------- imports

# FLTMGR.SYS. The .def names carry the 32-bit stdcall suffixes; x64 has none.
# dlltool names an archive's members after the path it is given, so both
# import libraries are written by relative path, from the build directory:
# their contents then do not depend on where the tree is built.
set(TEXPRT_FLTMGR_DEF ${CMAKE_SOURCE_DIR}/platform/windows/fltmgr.def)
set(TEXPRT_FLTMGR_IMPLIB ${CMAKE_BINARY_DIR}/libfltmgr.a)
if(TEXPRT_ARCH STREQUAL "i686")
    set(fltmgr_def_for_arch ${TEXPRT_FLTMGR_DEF})
else()
    set(fltmgr_def_for_arch ${TEXPRT_GENERATED_DIR}/fltmgr.def)
    file(READ ${TEXPRT_FLTMGR_DEF} fltmgr_def_text)
    string(REGEX REPLACE "([A-Za-z0-9_])@[0-9]+" "\\1" fltmgr_def_text "${fltmgr_def_text}")
    set(fltmgr_def_old "")
    if(EXISTS ${fltmgr_def_for_arch})
        file(READ ${fltmgr_def_for_arch} fltmgr_def_old)
    endif()
    if(NOT fltmgr_def_old STREQUAL fltmgr_def_text)
        file(WRITE ${fltmgr_def_for_arch} "${fltmgr_def_text}")
    endif()
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${TEXPRT_FLTMGR_DEF})
endif()
add_custom_command(
    OUTPUT ${TEXPRT_FLTMGR_IMPLIB}
    COMMAND ${TEXPRT_DLLTOOL} --kill-at --input-def ${fltmgr_def_for_arch} --dllname FLTMGR.SYS
            --output-lib libfltmgr.a
    DEPENDS ${fltmgr_def_for_arch}
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    COMMENT "Building the FLTMGR.SYS import library"
    VERBATIM)
add_custom_target(texprt_fltmgr_implib DEPENDS ${TEXPRT_FLTMGR_IMPLIB})

# ---------------------------------------------------------------- exports

# texprt.def with the names as the objects spell them (see the script).
set(TEXPRT_LINK_DEF ${TEXPRT_GENERATED_DIR}/texprt-link.def)
add_custom_command(
    OUTPUT ${TEXPRT_LINK_DEF}
    COMMAND ${CMAKE_SOURCE_DIR}/scripts/decorate-def ${CMAKE_NM} ${TEXPRT_ARCH} ${TEXPRT_DEF_FILE}
            ${TEXPRT_LINK_DEF} $<TARGET_OBJECTS:texprt_kernel_objects>
    DEPENDS ${TEXPRT_DEF_FILE} ${CMAKE_SOURCE_DIR}/scripts/decorate-def texprt_kernel_objects
            $<TARGET_OBJECTS:texprt_kernel_objects>
    COMMAND_EXPAND_LISTS
    COMMENT "Matching texprt.def to the objects"
    VERBATIM)

# ---------------------------------------------------------------- linking

# A module: CMake would otherwise have ld write the import library, and ld's
# drops the stdcall suffixes that 32-bit importers link against; dlltool
# writes it below from the same .def.
add_library(texprt MODULE
    $<TARGET_OBJECTS:texprt_kernel_objects>
    ${TEXPRT_GENERATED_DIR}/texprt.rc
    ${TEXPRT_LINK_DEF})
set_target_properties(texprt PROPERTIES
    PREFIX ""
    SUFFIX ".sys"
    LINKER_LANGUAGE CXX
    # The image version in the PE header (CMake passes it to ld).
    VERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
target_compile_definitions(texprt PRIVATE ${TEXPRT_DRIVER_DEFINITIONS})
target_include_directories(texprt PRIVATE ${TEXPRT_GENERATED_DIR})
add_dependencies(texprt texprt_fltmgr_implib)

set(TEXPRT_DRIVER_LINK_OPTIONS
    # No C runtime, no startup objects, no default libraries: what the image
    # needs is listed below, and anything else is a link error.
    -nostdlib
    LINKER:--subsystem,native
    LINKER:--entry,${TEXPRT_ENTRY}
    LINKER:--image-base,${TEXPRT_IMAGE_BASE}
    # Sections page-aligned in memory, so the kernel can give each its own
    # protection; 512-byte file alignment as for every PE image.
    LINKER:--section-alignment,0x1000
    LINKER:--file-alignment,0x200
    # The kernel relocates drivers wherever it likes: keep the relocations.
    LINKER:--dynamicbase
    LINKER:--enable-reloc-section
    LINKER:--nxcompat
    # Referencing a data export without dllimport would make ld patch the
    # reference at load time through a runtime we do not have: fail instead.
    LINKER:--disable-auto-import
    LINKER:--disable-runtime-pseudo-reloc
    # The oldest system the image is built for, as _WIN32_WINNT says.
    LINKER:--major-os-version,6
    LINKER:--minor-os-version,2
    LINKER:--major-subsystem-version,6
    LINKER:--minor-subsystem-version,2)
if(TEXPRT_ARCH STREQUAL "i686")
    list(APPEND TEXPRT_DRIVER_LINK_OPTIONS
        # Exports by their undecorated names (the .def carries the @n).
        LINKER:--kill-at
        # A cdecl reference must never bind to a stdcall definition or the
        # other way round: the stack would be off by the arguments.
        LINKER:--disable-stdcall-fixup)
else()
    list(APPEND TEXPRT_DRIVER_LINK_OPTIONS LINKER:--high-entropy-va)
endif()
target_link_options(texprt PRIVATE ${TEXPRT_DRIVER_LINK_OPTIONS})

# Imports: the kernel, the HAL, the filter manager. libgcc is compiler
# support, not a C runtime: 64-bit division on x86 (__udivdi3 and friends);
# it must come last, and it imports nothing.
target_link_libraries(texprt PRIVATE ntoskrnl hal ${TEXPRT_FLTMGR_IMPLIB} gcc)
set_property(TARGET texprt APPEND PROPERTY LINK_DEPENDS ${TEXPRT_FLTMGR_IMPLIB})

# The import library for monitor drivers: decorated symbols (_TcFoo@4 on
# x86), undecorated import names, DLL name texprt.sys.
set(TEXPRT_IMPLIB ${CMAKE_BINARY_DIR}/libtexprt.a)
add_custom_command(TARGET texprt POST_BUILD
    COMMAND ${TEXPRT_DLLTOOL} --kill-at --input-def ${TEXPRT_LINK_DEF} --dllname texprt.sys
            --output-lib libtexprt.a
    BYPRODUCTS ${TEXPRT_IMPLIB}
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    COMMENT "Writing the import library libtexprt.a"
    VERBATIM)
