# Cross build for 32-bit ARM (Debian armhf: ARMv7, hard float). What is built runs here through qemu-arm.
foreach(program IN ITEMS arm-linux-gnueabihf-g++ qemu-arm)
    find_program(path_of_${program} ${program} NO_CMAKE_FIND_ROOT_PATH)
    if(NOT path_of_${program})
        message(FATAL_ERROR "${program} is missing. On Debian: apt-get install g++-arm-linux-gnueabihf qemu-user")
    endif()
endforeach()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)

# Libraries come from the cross system alone. Header-only packages (CLI11, nlohmann-json) serve both sides.
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
