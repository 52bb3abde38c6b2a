# shellcheck shell=bash
# What the tests of the installed packages share. Sourced, never run.
#
# Nobody pipes into grep -q here: it leaves at the first line that fits, and whoever writes another one then ends the
# test by SIGPIPE.

unit=/lib/systemd/system/korlo-settings-server.service
# shellcheck disable=SC2034  # for those who source this
user_file=/var/lib/korlo-settings/user.ini
packages=(libkorlo1 libkorlosettings1 korlo-settings korlo-settings-server)
export DEBIAN_FRONTEND=noninteractive

# fail TEXT...: ends the test with a message.
fail()
{
    printf '%s\n' "$*" >&2
    exit 1
}

# expect WHAT EXPECTED ACTUAL
expect()
{
    [ "$2" = "$3" ] || fail "$1 is '$3' instead of '$2'"
}

# of_unit KEY: the value of this line of the unit.
of_unit()
{
    sed -n "s/^$1=//p" "$unit"
}

has_service_manager()
{
    [ -d /run/systemd/system ]
}

# start_program WHAT COMMAND...: in the background, and reads the first line that it prints into `line`; its number is in
# $!.
start_program()
{
    local what=$1 pipe
    shift
    pipe=$(mktemp -u --tmpdir="$AUTOPKGTEST_TMP")
    mkfifo "$pipe"
    "$@" > "$pipe" &
    exec {lines}< "$pipe"
    read -r -t 60 line <&"$lines" || fail "$what does not start"
}

# start_server: as its unit says, and returns when clients can connect. Where no service manager runs, this does what
# one does: it makes the folder of the state and runs the unit's command as the unit's user.
start_server()
{
    if has_service_manager; then
        systemctl start korlo-settings-server
        return
    fi
    local user command
    user=$(of_unit User)
    install -d -o "$user" -g "$user" -m "$(of_unit StateDirectoryMode)" "/var/lib/$(of_unit StateDirectory)"
    KORLO_SETTINGS_LISTEN=$(of_unit Environment | sed -n 's/^"KORLO_SETTINGS_LISTEN=\(.*\)"$/\1/p')
    # shellcheck source=/dev/null
    . "$(of_unit EnvironmentFile | sed 's/^-//')"
    command=$(of_unit ExecStart)
    # shellcheck disable=SC2086,SC2016  # the service manager splits both, too
    start_program "the server" setpriv --reuid="$user" --regid="$user" --init-groups --no-new-privs --inh-caps=-all \
        --bounding-set=-all ${command/'$KORLO_SETTINGS_LISTEN'/$KORLO_SETTINGS_LISTEN}
    server=$!
    expect "the server's first line" "listening on 127.0.0.1:4711" "$line"
}

# kill_server: without a warning. A service manager starts it again by itself.
kill_server()
{
    if has_service_manager; then
        systemctl kill --signal=KILL korlo-settings-server
    else
        kill -KILL "$server"
        wait "$server" || expect "the status of a killed server" 137 $?
        start_server
    fi
}

# stop_server: in order.
stop_server()
{
    if has_service_manager; then
        systemctl stop korlo-settings-server.socket korlo-settings-server-control.socket korlo-settings-server
        expect "the result of the service" success "$(systemctl show --property=Result --value korlo-settings-server)"
    else
        kill "$server"
        wait "$server" || fail "the server ended with $?"
    fi
}

# download_packages FOLDER: makes it, with the packages of the archive in FOLDER/now, and in FOLDER/next with a later
# version of themselves.
download_packages()
{
    local deb folder=$1
    mkdir "$folder" "$folder/now" "$folder/next"
    (cd "$folder/now" && apt-get -qq -o APT::Sandbox::User=root download "${packages[@]}")
    for deb in "$folder"/now/*.deb; do
        dpkg-deb --raw-extract "$deb" "$folder/unpacked"
        sed -i -E 's/^Version: .*/&+next/; s/\(= ([^)]*)\)/(= \1+next)/g' "$folder/unpacked/DEBIAN/control"
        dpkg-deb --build "$folder/unpacked" "$folder/next" > /dev/null
        rm -rf "$folder/unpacked"
    done
}
