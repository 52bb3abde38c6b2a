# What a process shares without being asked is known and short: the loggers, the table of commands, the directory of
# services, the numbers of new files, and where the signals of the tool and of the bridge go. Nothing is kept for each
# thread. So two clients, or two stores, in one process meet nowhere else.
#
#     cmake -D BINARIES=A,B -D NM=nm -P CheckState.cmake

set(known
    "Log\\(\\)::pLogger" "LogDispatcher::Instance\\(\\)::dispatcher" "LogRotateFolder::Instance\\(\\)::folder"
    "LoggerRegistry::Instance\\(\\)::registry" "cli::ReadQuietly\\(.*::pLog"
    "ClientHandler::MsgDispatcher::s_pInstance" "ClientHandler::MsgDispatcher::Instance\\(\\)::created"
    "TheDirectory\\(\\)::directory"
    "NextNameBeside\\(.*::counter"
    "RealFileSystem\\(\\)::fileSystem"  # it has no members
    "cli::\\(anonymous namespace\\)::writerOfInterruption"
    "mqtt::\\(anonymous namespace\\)::bridgeToStop" "mqtt::\\(anonymous namespace\\)::signalsLeft"
    "cli::AllCommands\\(\\)::commands" "ServerOptions::DefaultDoor\\(\\)::door")  # set once and then read
string(REPLACE "," ";" binaries "${BINARIES}")
foreach(binary IN LISTS binaries)
    # NAME|VALUE|CLASS|TYPE|SIZE|LINE|SECTION
    execute_process(COMMAND ${NM} -C --format=sysv --defined-only ${binary} OUTPUT_VARIABLE symbols
        COMMAND_ERROR_IS_FATAL ANY)
    string(REPLACE ";" "," symbols "${symbols}")
    string(REGEX MATCHALL "korlo::[^\n]*\\|\\.t?(bss|data)[^\n]*" found "${symbols}")
    set(count 0)
    foreach(symbol IN LISTS found)
        # Constants that hold addresses are written by the loader alone.
        if(symbol MATCHES "\\|\\.data\\.rel\\.ro" OR symbol MATCHES "guard variable for ")
            continue()
        endif()
        math(EXPR count "${count} + 1")
        set(is_known FALSE)
        foreach(name IN LISTS known)
            if(symbol MATCHES "^[^|]*${name} *\\|" AND NOT symbol MATCHES "\\| *TLS\\|")
                set(is_known TRUE)
            endif()
        endforeach()
        if(NOT is_known)
            message(SEND_ERROR "${binary} keeps state for a whole process or thread: ${symbol}")
        endif()
    endforeach()
    if(count EQUAL 0)
        message(FATAL_ERROR "${binary} shows no state at all: the check looks at the wrong thing")
    endif()
endforeach()
