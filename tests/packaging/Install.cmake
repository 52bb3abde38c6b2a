# Builds the libraries and installs them, and moves what was installed: the packages must not remember where they
# were installed to, because an image of a device is put together elsewhere.
include(${CMAKE_CURRENT_LIST_DIR}/Common.cmake)

set(staging ${WORK}/staging)
set(device ${WORK}/device)
file(REMOVE_RECURSE ${prefix} ${staging} ${device})
run(${CMAKE_COMMAND} -S ${TREE} -B ${WORK}/build ${build_options}
    -D CMAKE_INSTALL_LIBDIR=lib
    -D KORLO_BUILD_TESTS=OFF
    -D KORLO_BUILD_PROGRAMS=OFF
    -D KORLO_BUILD_EXAMPLES=OFF)
run(${CMAKE_COMMAND} --build ${WORK}/build --parallel 2)
run(${CMAKE_COMMAND} --install ${WORK}/build --prefix ${staging})
file(RENAME ${staging} ${prefix})

file(GLOB_RECURSE packages ${prefix}/lib/*.cmake ${prefix}/lib/*.pc)
foreach(package IN LISTS packages)
    file(READ ${package} text)
    expect_no_private_flags("${text}" ${package})
    if(text MATCHES "${staging}|${TREE}/(core|source|include)")
        message(FATAL_ERROR "${package} names the folder '${CMAKE_MATCH_0}' of the machine that built it")
    endif()
endforeach()

if(shared)
    file(GLOB libraries RELATIVE ${prefix}/lib ${prefix}/lib/*.so.1)
    set(expected "libkorlo.so.1;libkorlosettings.so.1")
else()
    file(GLOB libraries RELATIVE ${prefix}/lib ${prefix}/lib/*.a)
    set(expected "libkorlo.a;libkorlosettings.a")
endif()
if(NOT libraries STREQUAL expected)
    message(FATAL_ERROR "installed were '${libraries}' instead of '${expected}'")
endif()

# What goes onto a device is what runs there.
run(${CMAKE_COMMAND} --install ${WORK}/build --prefix ${device} --component runtime)
file(GLOB_RECURSE development ${device}/*.h ${device}/*.a ${device}/*.cmake ${device}/*.pc ${device}/*.so)
if(development)
    message(FATAL_ERROR "the component runtime holds '${development}'")
endif()
if(shared AND NOT EXISTS ${device}/lib/libkorlosettings.so.1)
    message(FATAL_ERROR "the component runtime holds no libkorlosettings.so.1")
endif()
