# Shared by the scripts: sourced with the repository's root as the working directory.
# shellcheck shell=bash

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

# Installs those of the named Debian packages that are missing.
install_packages() {
    local missing=() package
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
            missing+=("$package")
    done
    [ "${#missing[@]}" -eq 0 ] && return
    echo "Installing ${missing[*]}"
    as_root apt-get update -qq
    as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# Makes the account that the daemon runs as. Its user and group id are equal, because the daemon
# takes the group id as its effective user id.
make_account() {
    getent passwd ovo >/dev/null && return
    local id=990
    while getent passwd "$id" >/dev/null || getent group "$id" >/dev/null; do
        id=$((id - 1))
    done
    echo "Making the account ovo ($id)"
    as_root groupadd --system --gid "$id" ovo
    as_root useradd --system --uid "$id" --gid "$id" --home-dir /nonexistent --no-create-home \
        --shell /usr/sbin/nologin ovo
}

# Configures and builds into a directory: build_into DIRECTORY [cmake options].
build_into() {
    local directory=$1
    shift
    cmake -S . -B "$directory" "$@" >/dev/null
    cmake --build "$directory" -j "$(nproc)" -- --no-print-directory >/dev/null
}
