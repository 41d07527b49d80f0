# shellcheck shell=bash
# A Debian in a folder, for scripts that source this. Needs root.

# The mirror that this machine's apt uses.
debian_mirror() {
    apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' | grep -m 1 '/debian/$'
}

# Runs a command line in the Debian of a folder. Its mounts and processes have namespaces of their
# own that end with it, so nothing stays mounted or running.
in_debian() { # folder command-line [NAME=value...]
    local folder=$1 line=$2
    shift 2
    unshare --mount --pid --fork --kill-child -- bash -euc '
        folder=$1 line=$2
        shift 2
        mount --make-rprivate /
        mount -t proc proc "$folder/proc"
        mount -t devtmpfs dev "$folder/dev"
        mount -t devpts -o newinstance,ptmxmode=0666 devpts "$folder/dev/pts"
        mount --bind "$folder/dev/pts/ptmx" "$folder/dev/ptmx"
        mount -t tmpfs shm "$folder/dev/shm"
        exec chroot "$folder" /usr/bin/env -i HOME=/root TERM=dumb LC_ALL=C.UTF-8 \
            PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@" bash -euc "$line"
    ' in_debian "$folder" "$line" "$@" </dev/null
}

# Makes a Debian with these packages, unless the folder has it already.
make_debian() { # suite folder package...
    local suite=$1 folder=$2
    shift 2
    [ ! -e "$folder/ready" ] || return 0
    rm -rf "$folder"
    mkdir -p "$(dirname "$folder")"
    unshare --mount -- debootstrap --variant=minbase "$suite" "$folder" "$(debian_mirror)"
    # A mirror may lag behind; what the packages are is recorded by the checks, not by the date.
    echo 'Acquire::Check-Valid-Until "false";' >"$folder/etc/apt/apt.conf.d/lagging-mirror"
    in_debian "$folder" "apt-get update -q && apt-get install -qy --no-install-recommends $*"
    touch "$folder/ready"
}

# Copies what git tracks, as it is in the working tree; files that did not change keep their time.
copy_sources() { # folder
    mkdir -p "$1"
    git ls-files -z | xargs -0 tar -c | tar -x -C "$1"
}
