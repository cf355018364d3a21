# shellcheck shell=bash
# Sourced by the scripts: quiet steps, and Debian packages where something is missing.
# Expects `root` to name the checkout.
# shellcheck disable=SC2154

# The service binaries of Debian stand in folders that only root has on its path.
PATH="$PATH:/usr/sbin:/sbin"

# fail TEXT...: one line on standard error, and the end of the script.
fail() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# quietly COMMAND...: what the command printed is shown only when it fails.
quietly() {
    local output
    output=$("$@" 2>&1) && return
    printf '%s\n' "$output" >&2
    return 1
}

# have PACKAGE: whether what the package is wanted for is there, wherever it came from.
have() {
    case $1 in
        abigail-tools) command -v abidw ;;
        build-essential | crossbuild-essential-* | googletest) dpkg-query -W -f '${db:Status-Status}\n' "$1" | grep -Fx installed ;;
        debhelper) command -v dh ;;
        diffoscope-minimal) command -v diffoscope ;;
        fail2ban) command -v fail2ban-regex ;;
        g++-aarch64-linux-gnu) command -v aarch64-linux-gnu-g++ ;;
        ninja-build) command -v ninja ;;
        node-ws) [[ -d /usr/share/nodejs/ws ]] ;;
        monitoring-plugins-basic) [[ -x /usr/lib/nagios/plugins/check_http ]] ;;
        nftables) command -v nft ;;
        nginx-light) command -v nginx ;;
        chromium-driver) command -v chromedriver ;;
        iproute2) command -v ip ;;
        libssl3) ldconfig -p | grep -F libssl.so. ;;
        qemu-user) command -v qemu-aarch64 ;;
        python3-matplotlib) /usr/bin/python3 -c 'import matplotlib' ;;
        python3-pytest) /usr/bin/python3 -c 'import pytest' ;;
        python3-pytest-timeout) /usr/bin/python3 -c 'import pytest_timeout' ;;
        python3-selenium) /usr/bin/python3 -c 'import selenium' ;;
        python3-systemd) /usr/bin/python3 -c 'import systemd.journal' ;;
        python3-websockets) /usr/bin/python3 -c 'import websockets' ;;
        systemd-journal-remote) [[ -x /lib/systemd/systemd-journal-remote ]] ;;
        lib*-dev | nlohmann-json3-dev) dpkg-query -W -f '${db:Status-Status}\n' "$1" | grep -Fx installed ;;
        *) command -v "$1" ;;
    esac >/dev/null 2>&1
}

# install_missing PACKAGE...: leaves apt alone when everything is there.
install_missing() {
    local package as_root=()
    local missing=()
    for package in "$@"; do
        have "$package" || missing+=("$package")
    done
    ((${#missing[@]})) || return 0

    command -v apt-get >/dev/null || fail "needs ${missing[*]} (Debian's names), and there is no apt-get to install them"
    if ((EUID != 0)); then
        command -v sudo >/dev/null || fail "needs ${missing[*]}: install them as root, or install sudo"
        as_root=(sudo)
    fi
    printf 'Installing %s...\n' "${missing[*]}" >&2
    quietly "${as_root[@]}" bash "$root/scripts/apt_install" "${missing[@]}" ||
        fail "could not install ${missing[*]}"
}

# need_cmake VERSION: the packaged one is too old on releases before Debian 12.
need_cmake() {
    local found
    found=$(cmake --version | sed -n '1s/[^0-9]*//p')
    printf '%s\n%s\n' "$1" "$found" | sort -V -C || fail "needs cmake $1 or later, found $found"
}

# tree_version: the number that CMake gives to what it builds.
tree_version() {
    sed -n 's/^  VERSION \([0-9.]*\)$/\1/p' "$root/CMakeLists.txt"
}
