# Nothing in a library is constructed before main or destroyed after it: a global of a program may use the libraries
# from its own constructor to its own destructor.
#
#     cmake -D LIBRARIES=A,B -D READELF=readelf -D NM=nm -P CheckGlobals.cmake

string(REPLACE "," ";" libraries "${LIBRARIES}")
foreach(library IN LISTS libraries)
    execute_process(COMMAND ${READELF} --sections --wide ${library} OUTPUT_VARIABLE sections COMMAND_ERROR_IS_FATAL ANY)
    execute_process(COMMAND ${NM} --undefined-only ${library} OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
    if(NOT sections MATCHES "\\.text" OR NOT symbols MATCHES " U ")
        message(FATAL_ERROR "${library} has no code that could be looked at")
    endif()
    string(REGEX MATCHALL "(File: |\\.init_array|\\.ctors)[^\n]*" constructed "${sections}")
    string(REGEX MATCHALL "[^\n]+:\n|[^\n ]*atexit[^\n]*" destroyed "${symbols}")
    foreach(found IN LISTS constructed destroyed)
        if(found MATCHES "^File: |:\n$")
            set(source "${found}")
        else()
            message(SEND_ERROR "A global of ${library} needs construction or destruction: ${source} ${found}")
        endif()
    endforeach()
endforeach()
