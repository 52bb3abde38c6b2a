# add_subdirectory(): the tree as part of another project, which gets the two libraries and nothing else.
include(${CMAKE_CURRENT_LIST_DIR}/Common.cmake)

copy_consumer(folder)
run(${CMAKE_COMMAND} -S ${folder}/consumer -B ${folder}/build ${build_options} -D KORLO_SOURCE_DIR=${TREE})
run(${CMAKE_COMMAND} --build ${folder}/build --parallel 2)
expect_clean_compile_command(${folder}/build)
run_consumer(${folder}/build/consumer)

file(GLOB_RECURSE built RELATIVE ${folder}/build/korlo ${folder}/build/korlo/*.a ${folder}/build/korlo/*.so)
set(expected "core/libkorlo.a;source/libkorlosettings.a")
if(shared)
    set(expected "core/libkorlo.so;source/libkorlosettings.so")
endif()
if(NOT built STREQUAL expected)
    message(FATAL_ERROR "the subproject built '${built}' instead of '${expected}'")
endif()
file(REMOVE_RECURSE ${folder})
