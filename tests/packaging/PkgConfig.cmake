# pkg-config --cflags --libs korlosettings, and one call of the compiler.
include(${CMAKE_CURRENT_LIST_DIR}/Common.cmake)

copy_consumer(folder)
set(static_option)
if(NOT shared)
    set(static_option --static)
endif()
run(${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${prefix}/lib/pkgconfig
    ${PKG_CONFIG} ${static_option} --cflags --libs korlosettings)
expect_no_private_flags("${OUTPUT}" "korlosettings.pc")
separate_arguments(flags UNIX_COMMAND "${OUTPUT}")
run(${COMPILER} -std=c++20 -O2 ${folder}/consumer/main.cpp -o ${folder}/consumer/program ${flags})
run_consumer(${folder}/consumer/program LD_LIBRARY_PATH=${prefix}/lib)
file(REMOVE_RECURSE ${folder})
