# Minimal Debian systems, made once from the machine's own mirrors and kept: sourced with the repository's
# root as the working directory, after common.sh.
# shellcheck shell=bash

cache=/var/cache/vesper-clean-room
MAX_TRIES=120 # to begin, each of half a minute
# The guest is alone in the unified hierarchy, which is all that its systemd may know, and has /tmp
# on the disk: a tenth of the memory can be too little for a build.
export SYSTEMD_NSPAWN_UNIFIED_HIERARCHY=1 SYSTEMD_NSPAWN_TMPFS_TMP=0
nspawn=''

fail() {
    echo "${0##*/}: $*" >&2
    exit 1
}

# Says what comes, and how long the last took.
step() {
    [ -z "${step_began:-}" ] || printf -- '--- %s: %d s\n' "$step_name" $((SECONDS - step_began))
    step_name=$1
    step_began=$SECONDS
    printf '\n=== %s\n' "$step_name"
}

# Waits until nobody else works in the cache.
take_cache() {
    local tries=0
    # Nobody else can take the lock in it.
    install -d -m 0700 "$cache"
    exec {lock}>"$cache/lock"
    until flock --wait 30 "$lock"; do
        tries=$((tries + 1))
        [ "$tries" -lt "$MAX_TRIES" ] || fail "another run is not over after $((tries / 2)) minutes"
        echo "Another run is not over yet"
    done
}

# Runs systemd-nspawn: guest DIRECTORY [options and command]. What it mounts is seen by nobody else
# and is gone when it ends. It makes directories in /run/systemd/nspawn and expects them to be lost
# with the memory, also where /run is on the disk. Nothing in there has to survive a power cut.
guest() {
    local status=0
    # shellcheck disable=SC2016  # expanded by the inner shell
    unshare --mount sh -c '
        mkdir -p /run/systemd/nspawn
        mount -t tmpfs none /run/systemd/nspawn
        exec "$@"
    ' sh systemd-nspawn --quiet --register=no --keep-unit --suppress-sync=yes \
        --directory "$@" </dev/null &
    nspawn=$!
    wait "$nspawn" || status=$?
    nspawn=''
    remove_cgroups
    return "$status"
}

# Ends a guest that still runs. The second signal cuts the orderly shutdown of a booted one short.
end_guest() {
    [ -n "$nspawn" ] || return 0
    kill "$nspawn" 2>/dev/null && sleep 1
    kill "$nspawn" 2>/dev/null
    wait "$nspawn"
    remove_cgroups
}

# Boots a room and runs a shell's command in it, whose exit status becomes that of the system's shutdown:
# boot_and_run DIRECTORY SECONDS COMMAND
boot_and_run() {
    local directory=$1 units=$1/etc/systemd/system
    cat >"$units/room-test.service" <<END
[Unit]
After=multi-user.target
SuccessAction=exit
FailureAction=exit
[Service]
Type=exec
ExecStart=/bin/sh -c '$3'
Environment=HOME=/root TERM=dumb
RuntimeMaxSec=$2
StandardOutput=tty
StandardError=inherit
END
    mkdir -p "$units/multi-user.target.wants"
    ln -s ../room-test.service "$units/multi-user.target.wants"
    # The one would give this machine's kernel the room's settings, the other take the console away.
    ln -s /dev/null "$units/systemd-sysctl.service"
    ln -s /dev/null "$units/console-getty.service"
    # A machine's first process has no inheritable capabilities; a guest's has all.
    guest "$directory" --private-network --console=read-only --kill-signal=SIGRTMIN+3 \
        --setenv=TERM=dumb \
        setpriv --inh-caps=-all /sbin/init systemd.show_status=no systemd.log_level=err
}

# Runs a command in a directory's system, with the machine's network. A booted system would have
# made the directory for locks.
run_in() {
    local directory=$1
    shift
    # shellcheck disable=SC2016  # expanded by the inner shell
    guest "$directory" --as-pid2 --pipe --resolv-conf=copy-host \
        sh -c 'mkdir -m 1777 /run/lock; exec "$@"' sh "$@"
}

# systemd-nspawn leaves the groups of a guest to a service manager that is not told of this one.
remove_cgroups() {
    local controllers path mount
    while IFS=: read -r _ controllers path; do
        case $controllers in
        '') mount=$(findmnt -fnro TARGET -t cgroup2) || continue ;;
        name=systemd) mount=$(findmnt -fnro TARGET -t cgroup -O name=systemd) || continue ;;
        *) continue ;;
        esac
        find "$mount$path/payload" "$mount$path/supervisor" -depth -type d -exec rmdir {} \; \
            2>/dev/null || true
    done </proc/self/cgroup
}

# Prints the machine's Debian mirrors as "URI SUITE" for a suite and its updates: mirrors SUITE
mirrors() {
    local uri release
    # shellcheck disable=SC2016  # expanded by apt-get
    apt-get indextargets --format '$(ORIGIN) $(COMPONENT) $(REPO_URI) $(RELEASE)' \
        'Created-By: Packages' |
        sed -nE "s/^Debian main (\S+) [a-z]+(-updates|-security)?$/\1 $1\2/p" | sort -u |
        while read -r uri release; do
            # A list of mirrors is a file of this machine.
            case $uri in
            mirror+file:*) uri=$(sed -n 's/[[:space:]].*//; 1p' "/${uri#mirror+file:/}") ;;
            esac
            echo "$uri $release"
        done
}

# How the machine fetches: proxies, time-outs, what it accepts.
fetch_settings() {
    apt-config dump | grep -E '^Acquire::' |
        grep -vE '^Acquire::(Changelogs|CompressionTypes|IndexTargets|Languages)|""' || true
    [ -z "${http_proxy:-}" ] || echo "Acquire::http::Proxy \"$http_proxy\";"
    [ -z "${https_proxy:-}" ] || echo "Acquire::https::Proxy \"$https_proxy\";"
}

# Makes a minimal system of a suite, with packages that it also has: make_base SUITE DIRECTORY [PACKAGES]
make_base() {
    local suite=$1 base=$2 list uri release file include='' log=$cache/log script=''
    shift 2
    apt-get update -qq
    list=$(mirrors "$suite")
    uri=$(awk -v suite="$suite" '$2 == suite { print $1; exit }' <<<"$list")
    [ -n "$uri" ] || fail "found no Debian mirror among the sources of this machine"
    case $list in *https:*) include=--include=ca-certificates ;; esac
    [ -n "${http_proxy:-}" ] || eval "$(apt-config shell http_proxy Acquire::http::Proxy)"
    # All scripts of releases are one, and that of a newer release may be missing.
    [ -e "/usr/share/debootstrap/scripts/$suite" ] || script=/usr/share/debootstrap/scripts/sid
    rm -rf --one-file-system "$base.new"
    http_proxy=${http_proxy:-} debootstrap --variant=minbase ${include:+"$include"} "$suite" \
        "$base.new" "$uri" ${script:+"$script"} >"$log" 2>&1 || {
        tail -n 20 "$log" >&2
        fail "debootstrap failed"
    }
    fetch_settings >"$base.new/etc/apt/apt.conf.d/90machine"
    rm "$base.new/etc/apt/sources.list"
    while read -r uri release; do
        file=$base.new/etc/apt/sources.list.d/$release.list
        echo "deb $uri $release main" >"$file"
        run_in "$base.new" apt-get update -qq >"$log" 2>&1 && continue
        # A mirror of a time before the release has neither updates nor security.
        grep -q "$release.*does not have a Release file" "$log" || {
            cat "$log" >&2
            fail "cannot read $release"
        }
        echo "There is no $release on the mirror"
        rm "$file"
    done <<<"$list"
    [ $# -eq 0 ] || run_in "$base.new" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "$@" >"$log" 2>&1 ||
        {
            tail -n 20 "$log" >&2
            fail "cannot install $*"
        }
    run_in "$base.new" sh -c 'apt-get clean && rm -rf /var/lib/apt/lists/*'
    rm "$log"
    mv "$base.new" "$base"
}

# Makes the minimal system of a suite, if it is not kept yet.
keep_base() {
    [ ! -e "$cache/$1" ] || return 0
    step "$1: A minimal system, to be kept in $cache/$1"
    make_base "$1" "$cache/$1"
}

# Makes a repository of a copy of the tree and prints what names its content.
tree_of() {
    git -C "$1" init -q
    git -C "$1" add -A
    git -C "$1" write-tree
}

# Keeps packages for others: keep_packages SUITE DIRECTORY TREE
keep_packages() {
    rm -rf "$cache/packages-$1"
    install -d -m 0700 "$cache/packages-$1"
    cp "$2"/*.deb "$cache/packages-$1"
    echo "$3" >"$cache/packages-$1/tree"
}
