# shellcheck shell=bash
# What the scripts share: telling what they do, and installing what is missing. Sourced, never run.

# The compiler cache serves every clone of the tree, wherever it lies: paths below it count as relative.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1

# say TEXT...: a headline.
say()
{
    printf '\n== %s\n' "$*"
}

# fail TEXT...: ends the script with a message.
fail()
{
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# as_root COMMAND...: as root already, or by sudo.
as_root()
{
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    elif command -v sudo > /dev/null; then
        sudo "$@"
    else
        fail "need to be root, or sudo, for: $*"
    fi
}

# is_installed PACKAGE
is_installed()
{
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2> /dev/null)" = installed ]
}

# packages_of PRESET...: what building and testing them needs, a package a line; "checks" is what looks over the code.
packages_of()
{
    local name
    {
        echo cmake ninja-build g++ ccache pkg-config libgtest-dev libgmock-dev libcli11-dev nlohmann-json3-dev systemd
        for name in "$@"; do
            case $name in debug | quick | release | clang | coverage) echo fish mandoc mypy python3-pytest scdoc zsh ;; esac
            case $name in
                debug | quick | release | clang | coverage | asan | tsan)
                    echo libmosquitto-dev libssl-dev mosquitto mosquitto-clients openssl ;;
            esac
            case $name in
                checks) echo clang-14 clang-format-14 clang-tidy-14 cppcheck shellcheck ;;
                debug) echo doxygen phpunit php-codesniffer chromium chromium-driver python3-selenium php-fpm nginx-light lighttpd ;;
                quick) echo doxygen phpunit php-codesniffer ;;
                clang) echo clang-14 phpunit php-codesniffer ;;
                asan | tsan) echo googletest ;;
                coverage) echo gcovr phpunit php-codesniffer ;;
                fuzz) echo clang-14 libclang-rt-14-dev ;;
                armhf) echo g++-arm-linux-gnueabihf qemu-user googletest ;;
                release-bench) echo libbenchmark-dev libglib2.0-dev libsimpleini-dev redis-server libhiredis-dev ;;
            esac
        done
    } | tr ' ' '\n' | sort -u
}

# install_missing PACKAGE...: installs those packages that are not installed, and says which. Where there is no
# apt-get nothing is looked for: the configuration of the build stops by itself at whatever it misses.
install_missing()
{
    if ! command -v apt-get > /dev/null; then
        say "Not a Debian system; these packages, or their like, are taken for granted: $*"
        return
    fi
    local package missing=()
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    if [ "${#missing[@]}" -eq 0 ]; then
        say "Every package that is needed is installed"
        return
    fi
    say "Installing what is missing: ${missing[*]}"
    as_root apt-get -q -o DPkg::Lock::Timeout=120 update
    as_root env DEBIAN_FRONTEND=noninteractive \
        apt-get -q -o DPkg::Lock::Timeout=120 install -y --no-install-recommends "${missing[@]}"
}

# install_from_npm: what the page takes from there, as its lock file says, and its stylesheet where the page looks for it.
install_from_npm()
{
    local style=web/public/vendor/simple.min.css
    command -v npm > /dev/null || install_missing npm
    if [ ! -e "$style" ] || [ web/package-lock.json -nt web/node_modules/.package-lock.json ]; then
        say "Installing what the page takes from npm"
        npm ci --prefix web --ignore-scripts --no-audit --no-fund
        mkdir -p "${style%/*}"
        cp web/node_modules/simpledotcss/simple.min.css "$style"
    fi
}
