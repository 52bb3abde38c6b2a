# How everything in this tree is compiled. All of it ends at this folder: no user of the package sees any of it.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)

# CMake cannot know that the object libraries of the floors end in a shared library. Calls inside it go straight to
# their function, as in the static library: nobody replaces a function of ours at load time.
if(BUILD_SHARED_LIBS)
    set(CMAKE_POSITION_INDEPENDENT_CODE ON)
    add_compile_options($<$<CXX_COMPILER_ID:GNU>:-fno-semantic-interposition>)
endif()

# A 32-bit device runs past January 2038 and may hold files past 2 GiB. On 64 bits these say what is so anyway.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)

if(KORLO_SANITIZE)
    add_compile_options(-fsanitize=${KORLO_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${KORLO_SANITIZE})
endif()

# korlo_precompile(TARGET OWNER HEADER...): its sources have these headers and what most of them use of the standard
# library parsed once, where the option says so; for all targets with the same owner, which is the first of them. Every
# source includes what it needs all the same: other builds show it.
function(korlo_precompile target owner)
    # With the thread sanitizer, g++ 12 then takes its own strings for too short.
    if(NOT KORLO_PRECOMPILE OR KORLO_SANITIZE MATCHES "thread")
        return()
    endif()
    if(target STREQUAL owner)
        target_precompile_headers(${target} PRIVATE <algorithm> <array> <atomic> <chrono> <functional> <map> <memory>
            <mutex> <optional> <sstream> <string> <string_view> <utility> <vector> ${ARGN})
    else()
        target_precompile_headers(${target} REUSE_FROM ${owner})
    endif()
endfunction()

# korlo_compile_alone(SOURCE...): where several sources are compiled as one, not these: another one of their target has a
# name of theirs outside of any class.
function(korlo_compile_alone)
    set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
endfunction()

if(PROJECT_IS_TOP_LEVEL)
    set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
    find_program(CCACHE_PROGRAM ccache)
    mark_as_advanced(CCACHE_PROGRAM)
    if(CCACHE_PROGRAM AND NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
        # Without these two it leaves everything alone that is compiled with precompiled headers.
        set(CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE_PROGRAM})
    endif()
endif()
