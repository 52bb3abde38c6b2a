# A tool that was asked for and is not there stops the configuration: nothing drops out quietly.

# korlo_require(FOUND WHAT PACKAGES): stops with a message that says what to install, unless FOUND is true.
function(korlo_require found what packages)
    if(NOT found)
        message(FATAL_ERROR "${what} is missing. On Debian: apt-get install ${packages}")
    endif()
endfunction()

# korlo_require_program(VARIABLE PROGRAM PACKAGES): sets VARIABLE to the path of PROGRAM, or stops.
function(korlo_require_program variable program packages)
    find_program(${variable} ${program})
    mark_as_advanced(${variable})
    korlo_require("${${variable}}" "The program ${program}" "${packages}")
endfunction()
