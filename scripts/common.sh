# Shared by the scripts: sourced with the repository's root as the working directory.
# shellcheck shell=bash

# Other accounts read and run what the scripts make. What they sort and look for is in one language.
umask 022
export LC_ALL=C.UTF-8

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

# Installs clang with what its sanitizers need. Their library carries the version of the release's
# clang in its name; llvm has the program that puts names into reports.
install_clang() {
    install_packages clang llvm
    install_packages "libclang-rt-$(/usr/bin/clang -dumpversion | cut -d . -f 1)-dev"
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

# Makes an account for builds that must not need root. Nothing else runs as it.
make_build_account() {
    getent passwd vesper-build >/dev/null && return
    echo "Making the account vesper-build"
    as_root useradd --system --user-group --home-dir /nonexistent --no-create-home \
        --shell /usr/sbin/nologin vesper-build
}

# Configures and builds into a directory: build_into DIRECTORY [cmake options]. What root builds
# belongs to the clone's owner, who can go on with it.
build_into() {
    local directory=$1
    shift
    cmake -S . -B "$directory" "$@" >/dev/null
    cmake --build "$directory" -j "$(nproc)" -- --no-print-directory >/dev/null
    [ "$(id -u)" -ne 0 ] || chown -R --reference=. "$directory"
}

# Copies the tree as it stands into a directory: new files too, ignored ones and the history not.
copy_tree() {
    local directory=$1
    mkdir -p "$directory"
    # git would refuse a clone that belongs to another account than the one that runs this.
    git -c safe.directory="$PWD" ls-files -z --cached --others --exclude-standard | sort -zu |
        while IFS= read -rd '' file; do
            if [ -e "$file" ]; then printf '%s\0' "$file"; fi
        done |
        tar --null -T - -c | tar -x --no-same-owner -C "$directory"
}
