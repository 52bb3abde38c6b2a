# Fails when an include points upward, sideways into another part's private files, or out of a public header into a
# private or platform header.
#
#     cmake -D TREE=<root of the tree> -P CheckIncludes.cmake
#
# Every source is given the floor that it lies on and every quoted include the floor of the file that it names, by the
# include roots. A lower floor must not include a higher one. Between private folders this is all there is to check:
# the floors below are what a floor is built from.
cmake_minimum_required(VERSION 3.25)

set(floors core common server handler client utilities programs)
set(standard_headers
    algorithm any array atomic barrier bit bitset cassert cctype cerrno cfenv cfloat charconv chrono cinttypes climits
    cmath codecvt compare complex concepts condition_variable coroutine csetjmp csignal cstdarg cstddef cstdint cstdio
    cstdlib cstring ctime cuchar cwchar cwctype deque exception execution filesystem forward_list format fstream
    functional future initializer_list iomanip ios iosfwd iostream istream iterator latch limits list locale map memory
    memory_resource mutex new numbers numeric optional ostream queue random ranges ratio regex scoped_allocator
    semaphore set shared_mutex source_location span sstream stack stdexcept stop_token streambuf string string_view
    syncstream system_error thread tuple type_traits typeindex typeinfo unordered_map unordered_set utility valarray
    variant vector version)

# floor_of_source(OUT PATH): the floor of a file, its path being relative to the tree; empty for one that is on none.
function(floor_of_source out path)
    if(path MATCHES "^core/")
        set(floor core)
    elseif(path MATCHES "/ClientHandler\\.(h|cpp)$")
        set(floor handler)
    elseif(path MATCHES "^(include/settings|source)/(common|server|client|utilities)/")
        set(floor ${CMAKE_MATCH_2})
    elseif(path MATCHES "^include/settings/")
        floor_of_settings_header(floor ${path})
    elseif(path MATCHES "^programs/")
        set(floor programs)
    else()
        set(floor "")
    endif()
    set(${out} "${floor}" PARENT_SCOPE)
endfunction()

# The headers that lie directly in include/settings/ belong to several floors.
function(floor_of_settings_header out path)
    if(path MATCHES "/(SettingLocator|ServerAddress|RefusedException|IChangeCallback|IConnectionCallback|GroupNameCollection)\\.h$")
        set(${out} common PARENT_SCOPE)
    elseif(path MATCHES "/KorloSettingsClient\\.h$")
        set(${out} client PARENT_SCOPE)
    else()
        set(${out} utilities PARENT_SCOPE)
    endif()
endfunction()

# resolve(OUT SOURCE INCLUDE): the file that a quoted include names, relative to the tree; empty if there is none.
function(resolve out source include)
    cmake_path(GET source PARENT_PATH folder)
    foreach(root IN ITEMS ${folder} core/include core/source include source programs programs/server)
        if(EXISTS ${TREE}/${root}/${include})
            cmake_path(SET found NORMALIZE ${root}/${include})
            set(${out} ${found} PARENT_SCOPE)
            return()
        endif()
    endforeach()
    set(${out} "" PARENT_SCOPE)
endfunction()

function(fault text)
    message(SEND_ERROR "${text}")
endfunction()

# check_own(SOURCE INCLUDE): one quoted include.
function(check_own source include)
    resolve(target ${source} ${include})
    if(NOT target)
        fault("${source}: \"${include}\" is not found from the include roots")
        return()
    endif()
    floor_of_source(from ${source})
    floor_of_source(to ${target})
    list(FIND floors "${from}" from_height)
    list(FIND floors "${to}" to_height)
    if(to_height GREATER from_height)
        fault("${source}: \"${include}\" points upward, from ${from} to ${to}")
    endif()
    if(source MATCHES "(^|/)include/" AND NOT target MATCHES "(^|/)include/")
        fault("${source}: a public header includes the private \"${include}\"")
    endif()
    if(target MATCHES "^core/source/" AND NOT source MATCHES "^core/")
        fault("${source}: \"${include}\" is private to core/")
    endif()
    # The tool asks a server for what the client library does not: in the words of the one place that knows them.
    if(from STREQUAL "programs" AND target MATCHES "^source/" AND
       NOT target STREQUAL "source/common/Protocol.h" AND NOT target STREQUAL "source/client/ServerLookup.h")
        fault("${source}: a program includes the private \"${include}\"")
    endif()
endfunction()

# check_foreign(SOURCE INCLUDE): one include in angle brackets.
function(check_foreign source include)
    if(source MATCHES "(^|/)include/" AND NOT include IN_LIST standard_headers)
        fault("${source}: a public header includes <${include}>, which is not of the C++ standard library")
    endif()
endfunction()

file(GLOB_RECURSE sources RELATIVE ${TREE}
    ${TREE}/core/*.h ${TREE}/core/*.cpp
    ${TREE}/include/*.h
    ${TREE}/source/*.h ${TREE}/source/*.cpp
    ${TREE}/programs/*.h ${TREE}/programs/*.cpp)
if(NOT sources)
    message(FATAL_ERROR "no source was found below '${TREE}'")
endif()
foreach(source IN LISTS sources)
    file(STRINGS ${TREE}/${source} lines REGEX "^[ \t]*#[ \t]*include")
    foreach(line IN LISTS lines)
        if(line MATCHES "include[ \t]*\"([^\"]+)\"")
            check_own(${source} ${CMAKE_MATCH_1})
        elseif(line MATCHES "include[ \t]*<([^>]+)>")
            check_foreign(${source} ${CMAKE_MATCH_1})
        endif()
    endforeach()
endforeach()
