# Shows CheckIncludes.cmake small trees, each with one fault, and expects it to name the fault.
#
#     cmake -D SCRATCH=<folder to use> -P CheckIncludesTest.cmake
cmake_minimum_required(VERSION 3.25)

# expect(NAME EXPECTED FILE TEXT ...): a tree of these files gives a message that matches EXPECTED; none when empty.
function(expect name expected)
    set(tree ${SCRATCH}/${name})
    file(REMOVE_RECURSE ${tree})
    set(files ${ARGN})
    while(files)
        list(POP_FRONT files path text)
        file(WRITE ${tree}/${path} "${text}\n")
    endwhile()
    execute_process(COMMAND ${CMAKE_COMMAND} -D TREE=${tree} -P ${CMAKE_CURRENT_LIST_DIR}/CheckIncludes.cmake
        RESULT_VARIABLE result
        ERROR_VARIABLE output)
    string(REGEX REPLACE "[ \n]+" " " output "${output}")
    if(expected STREQUAL "")
        if(NOT result EQUAL 0)
            message(SEND_ERROR "${name}: unexpected: ${output}")
        endif()
    elseif(result EQUAL 0 OR NOT output MATCHES "${expected}")
        message(SEND_ERROR "${name}: expected '${expected}', got: ${output}")
    endif()
endfunction()

expect(handler_on_store ""
    source/common/ClientHandler.cpp "#include \"settings/server/SettingsManager.h\""
    include/settings/server/SettingsManager.h "#include <string>")
expect(common_on_store "points upward, from common to server"
    source/common/SettingLocator.cpp "#include \"settings/server/SettingsManager.h\""
    include/settings/server/SettingsManager.h "")
expect(core_on_settings "points upward, from core to common"
    core/source/core/Logger.cpp "#include \"settings/SettingLocator.h\""
    include/settings/SettingLocator.h "")
expect(store_on_handler "points upward, from server to handler"
    source/server/SettingsManager.cpp "#include \"settings/server/ClientHandler.h\""
    include/settings/server/ClientHandler.h "")
expect(client_on_utility "points upward, from client to utilities"
    source/client/Facade.cpp "#include \"settings/LogManager.h\""
    include/settings/LogManager.h "")
expect(public_on_private "includes the private"
    include/settings/KorloSettingsClient.h "#include \"client/tMsgQueue.h\""
    source/client/tMsgQueue.h "")
expect(public_on_platform "which is not of the C.. standard library"
    core/include/korlo/osa/Mutex.h "#include <pthread.h>")
expect(private_of_core "is private to core"
    source/common/SettingLocator.cpp "#include \"FormatText.h\""
    core/source/FormatText.h "")
expect(program_on_private "a program includes the private"
    programs/cli/main.cpp "#include \"client/tMsgQueue.h\""
    source/client/tMsgQueue.h "")
expect(unknown "is not found from the include roots"
    source/common/SettingLocator.cpp "#include \"settings/Nowhere.h\"")
