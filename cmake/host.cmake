# Host build: hostkernel, the library as a loadable image, tests, tools.
include(CTest)

option(TEXPRT_FUZZ "Build the libFuzzer targets (clang) instead of tests and tools" OFF)
set(TEXPRT_SANITIZE "" CACHE STRING "Sanitizers for the host build: address,undefined | thread | empty")
if(TEXPRT_SANITIZE)
    add_compile_options(-fsanitize=${TEXPRT_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=${TEXPRT_SANITIZE})
endif()
if(TEXPRT_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()
add_compile_options(-g)
# A hot loop whose fused compare-and-branch straddles a 32-byte boundary runs
# at a fraction of its speed on the x86 cores this is measured on, so any
# unrelated change that shifts the code moved benchmark figures by half.
# The assembler keeps every branch inside its 32-byte block instead, and
# the figures then measure the code, not where the linker put it.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wa,-mbranches-within-32B-boundaries)
endif()

find_package(Threads REQUIRED)

add_subdirectory(platform/host)

# The host's message table is generated from the same message file that the
# Windows build compiles into a resource; it is part of the image, as the
# resource is part of texprt.sys.
add_executable(mcgen tools/mcgen/mcgen.cpp)
target_compile_options(mcgen PRIVATE -Wall -Wextra -Werror)
set(TEXPRT_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
add_custom_command(
    OUTPUT ${TEXPRT_GENERATED_DIR}/message_table.cpp
    COMMAND ${CMAKE_COMMAND} -E make_directory ${TEXPRT_GENERATED_DIR}
    COMMAND mcgen ${TEXPRT_MESSAGE_FILE} ${TEXPRT_GENERATED_DIR}/message_table.cpp
    DEPENDS mcgen ${TEXPRT_MESSAGE_FILE}
    COMMENT "Generating the host message table")

add_library(texprt_objects OBJECT ${TEXPRT_LIBRARY_SOURCES} ${TEXPRT_GENERATED_DIR}/message_table.cpp)
set_target_properties(texprt_objects PROPERTIES POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
target_compile_options(texprt_objects PRIVATE ${TEXPRT_KERNEL_CXX_FLAGS})
# GCC's unique symbols would pin the image in memory after dlclose.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(texprt_objects PRIVATE -fno-gnu-unique)
endif()
target_include_directories(texprt_objects PUBLIC ${CMAKE_SOURCE_DIR} ${TEXPRT_GENERATED_DIR})
target_link_libraries(texprt_objects PUBLIC hostkernel)

# Whitebox tests link the objects directly.
add_library(texprt_core STATIC $<TARGET_OBJECTS:texprt_objects>)
target_link_libraries(texprt_core PUBLIC texprt_objects)

# The image: loaded with dlopen by tests and texprt-sim the way the kernel
# loads an export driver, so every load starts from fresh static storage.
if(NOT TEXPRT_FUZZ)
    add_library(texprt SHARED $<TARGET_OBJECTS:texprt_objects>)
    target_link_libraries(texprt PRIVATE hostkernel)
    target_link_options(texprt PRIVATE -Wl,-Bsymbolic -Wl,--no-undefined)
endif()

if(TEXPRT_FUZZ)
    add_subdirectory(tools/tpol)
    add_subdirectory(fuzz)
    return()
endif()

if(BUILD_TESTING)
    find_package(GTest REQUIRED)
    include(GoogleTest)
    add_subdirectory(tests)
endif()
add_subdirectory(tools)
if(EXISTS ${CMAKE_SOURCE_DIR}/bench/CMakeLists.txt)
    add_subdirectory(bench)
endif()
