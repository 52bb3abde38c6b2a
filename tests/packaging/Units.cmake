# Installs the server and, where it is built, the bridge with their units onto a device of its own, and asks systemd what
# it thinks of them, which takes no running service manager.
include(${CMAKE_CURRENT_LIST_DIR}/Common.cmake)

set(device ${WORK}/device-with-units)
set(units ${device}/usr/lib/systemd/system)
set(rules ${device}/etc/korlo-settings/access.d)
file(REMOVE_RECURSE ${device})
run(${CMAKE_COMMAND} -S ${TREE} -B ${WORK}/build-units ${build_options}
    -D CMAKE_INSTALL_PREFIX=/usr
    -D KORLO_BUILD_TESTS=OFF
    -D KORLO_BUILD_EXAMPLES=OFF
    -D KORLO_BUILD_MQTT=${BRIDGE}
    -D KORLO_SYSTEMD_UNIT_DIR=/usr/lib/systemd/system)
run(${CMAKE_COMMAND} --build ${WORK}/build-units --parallel 2)

# install_on_device(): as a package is made, or an image.
function(install_on_device)
    run(${CMAKE_COMMAND} -E env DESTDIR=${device} ${CMAKE_COMMAND} --install ${WORK}/build-units --component runtime)
endfunction()

# expect(FILE CONTENT...): the file holds each of these.
function(expect file)
    file(READ ${device}/${file} text)
    foreach(content IN LISTS ARGN)
        string(FIND "${text}" "${content}" position)
        if(position EQUAL -1)
            message(FATAL_ERROR "${file} lacks '${content}':\n${text}")
        endif()
    endforeach()
endfunction()

install_on_device()
expect(usr/lib/systemd/system/korlo-settings-server.service "ExecStart=/usr/sbin/korlo-settings-server ")
expect(usr/lib/systemd/system/korlo-settings-server.socket "ListenStream=/run/korlo-settings/socket")
expect(usr/lib/systemd/system/korlo-settings-server-control.socket "ListenStream=/run/korlo-settings/control")
expect(etc/korlo-settings/access.d/10-shipped.ini "[Access/tcp]" "[Access/programs]")

# A shell finds the completion by the name of the command, and asks the tool that is installed.
foreach(program IN ITEMS korlo-settings korlo-settings-server)
    expect(usr/share/bash-completion/completions/${program} "complete -F _comp_cmd_")
endforeach()
run(${CMAKE_COMMAND} -E env PATH=${device}/usr/bin:$ENV{PATH} bash -c "
    source ${device}/usr/share/bash-completion/completions/korlo-settings
    COMP_LINE='korlo-settings subs' COMP_POINT=19
    _comp_cmd_korlo_settings korlo-settings subs korlo-settings
    echo \"\${COMPREPLY[*]}\"")
if(NOT OUTPUT STREQUAL "subscribed\n")
    message(FATAL_ERROR "bash completes 'subs' to '${OUTPUT}'")
endif()

foreach(folder IN ITEMS defaults.d restricted.d)
    if(NOT IS_DIRECTORY ${device}/etc/korlo-settings/${folder})
        message(FATAL_ERROR "the installation made no ${folder}")
    endif()
endforeach()

# What a device has decided about access stays: neither does a changed file lose its changes, nor a removed one return.
file(WRITE ${rules}/10-shipped.ini "changed")
install_on_device()
expect(etc/korlo-settings/access.d/10-shipped.ini "changed")
file(RENAME ${rules}/10-shipped.ini ${rules}/own.ini)
install_on_device()
if(EXISTS ${rules}/10-shipped.ini)
    message(FATAL_ERROR "an installation brought a rule file back that had been removed")
endif()

# The units find one another, what they wait for, and the program that they start; no line is unknown.
run(${PKG_CONFIG} --variable=systemdsystemunitdir systemd)
string(STRIP "${OUTPUT}" system_units)
file(GLOB targets ${system_units}/*.target)
file(COPY ${targets} DESTINATION ${units})
run(systemd-analyze verify --man=no --root=${device}
    korlo-settings-server.service korlo-settings-server.socket korlo-settings-server-control.socket)
if(OUTPUT)
    message(FATAL_ERROR "systemd-analyze verify says:\n${OUTPUT}")
endif()
run(${CMAKE_COMMAND} -E env ${device}/usr/sbin/korlo-settings-server --version)

# The sandbox is as tight as it was made: 1.7 of 10, by systemd 252. Others may weigh a little differently.
run(systemd-analyze security --offline=yes --threshold=20 --root=${device} korlo-settings-server.service)

# The user that runs the server, and the group of its clients.
run(systemd-sysusers --root=${device})
expect(etc/passwd "korlo-settings-daemon:x:")
expect(etc/group "korlo-settings-daemon:x:" "korlo-settings:x:")

if(NOT BRIDGE)
    return()
endif()
expect(usr/lib/systemd/system/korlo-settings-mqtt.service "ExecStart=/usr/sbin/korlo-settings-mqtt --config")
expect(usr/lib/tmpfiles.d/korlo-settings-mqtt.conf "z /etc/korlo-settings/mqtt.ini 0640 ")
expect(etc/passwd "korlo-settings-mqtt:x:")
expect(etc/korlo-settings/mqtt.ini "[Broker]" "[Accept]")
run(systemd-analyze verify --man=no --root=${device} korlo-settings-mqtt.service)
if(OUTPUT)
    message(FATAL_ERROR "systemd-analyze verify says:\n${OUTPUT}")
endif()
run(${CMAKE_COMMAND} -E env ${device}/usr/sbin/korlo-settings-mqtt --version)
# 1.5 of 10, by systemd 252.
run(systemd-analyze security --offline=yes --threshold=20 --root=${device} korlo-settings-mqtt.service)

# It may hold a password: others do not read it, and an installation changes nothing in it.
set(configuration ${device}/etc/korlo-settings/mqtt.ini)
run(stat --format=%a ${configuration})
if(NOT OUTPUT STREQUAL "640\n")
    message(FATAL_ERROR "the mode of mqtt.ini is ${OUTPUT}")
endif()
file(WRITE ${configuration} "changed")
install_on_device()
expect(etc/korlo-settings/mqtt.ini "changed")
