# find_package(KorloSettings) and target_link_libraries(... Korlo::settings).
include(${CMAKE_CURRENT_LIST_DIR}/Common.cmake)

copy_consumer(folder)
run(${CMAKE_COMMAND} -S ${folder}/consumer -B ${folder}/build ${build_options} -D CMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${folder}/build)
expect_clean_compile_command(${folder}/build)
run_consumer(${folder}/build/consumer)
file(REMOVE_RECURSE ${folder})
