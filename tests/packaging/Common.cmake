# What the packaging scripts share. Each is called with
#   TREE      the root of this tree             LINKAGE     static or shared
#   WORK      a folder for this linkage         COMPILER    the C++ compiler, LAUNCHER its cache (may be empty)
cmake_minimum_required(VERSION 3.25)

# The builds lie in different folders; with the sources' paths relative to each, none would find in the compiler cache
# what another one has compiled.
unset(ENV{CCACHE_BASEDIR})

set(prefix ${WORK}/prefix)
if(LINKAGE STREQUAL "shared")
    set(shared ON)
else()
    set(shared OFF)
endif()
# Nothing that is tested here depends on the optimiser, which takes longer than all of it.
set(build_options
    -G Ninja
    -D CMAKE_BUILD_TYPE=Release
    -D CMAKE_CXX_FLAGS_RELEASE=-DNDEBUG
    -D CMAKE_CXX_COMPILER=${COMPILER}
    -D CMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER}
    -D CMAKE_EXPORT_COMPILE_COMMANDS=ON
    -D BUILD_SHARED_LIBS=${shared}
    -D KORLO_WARNINGS_AS_ERRORS=ON)

# run(COMMAND...): runs a command, and ends the test with its output if it fails. Sets OUTPUT.
function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        list(JOIN ARGV " " command)
        message(FATAL_ERROR "'${command}' failed with ${result}:\n${output}")
    endif()
    set(OUTPUT "${output}" PARENT_SCOPE)
endfunction()

# copy_consumer(OUT): a fresh temporary folder with a copy of the consumer project, far from the tree.
function(copy_consumer out)
    run(mktemp -d)
    string(STRIP "${OUTPUT}" folder)
    file(COPY ${CMAKE_CURRENT_LIST_DIR}/consumer DESTINATION ${folder})
    set(${out} ${folder} PARENT_SCOPE)
endfunction()

# run_consumer(PROGRAM [ENVIRONMENT...]): the program does its work and says so.
function(run_consumer program)
    run(${CMAKE_COMMAND} -E env ${ARGN} ${program})
    if(NOT OUTPUT STREQUAL "it works\n")
        message(FATAL_ERROR "the consumer printed '${OUTPUT}'")
    endif()
endfunction()

# expect_no_private_flags(TEXT WHAT): a user is held to none of our warnings, and gets none of our private switches.
function(expect_no_private_flags text what)
    if(text MATCHES "(-W[a-z][^ ]*|-fsanitize[^ ]*|_TIME_BITS[^ ]*|-fno-semantic[^ ]*|korlo_warnings)")
        message(FATAL_ERROR "${what} passes on ${CMAKE_MATCH_1}")
    endif()
endfunction()

# expect_clean_compile_command(FOLDER): the same of the command that compiled the consumer's own source.
function(expect_clean_compile_command folder)
    file(READ ${folder}/compile_commands.json commands)
    string(JSON count LENGTH "${commands}")
    math(EXPR last "${count} - 1")
    foreach(index RANGE ${last})
        string(JSON file GET "${commands}" ${index} file)
        if(file MATCHES "/consumer/main\\.cpp$")
            string(JSON command GET "${commands}" ${index} command)
            expect_no_private_flags("${command}" "The target")
            return()
        endif()
    endforeach()
    message(FATAL_ERROR "no command compiles the consumer")
endfunction()
