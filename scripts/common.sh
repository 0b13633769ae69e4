# common.sh - what the scripts share: where the tree is, and the packages it needs.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
readonly root
readonly build_packages=(g++ cmake make pkg-config libgtest-dev libpng-dev libfaketime
                         libcli11-dev nlohmann-json3-dev)
readonly run_packages=(iproute2 util-linux procps)
# shellcheck disable=SC2034 # used by .ci/run
readonly check_packages=(clang clang-format clang-tidy cppcheck libclang-rt-dev llvm python3
                         shellcheck)

say() {
    echo "==> $*"
}

die() {
    echo "${0##*/}: $*" >&2
    exit 1
}

is_installed() {
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# Runs apt-get as root, through sudo where this is not root.
apt_get() {
    local as_root=()
    if ((EUID != 0)); then
        as_root=(sudo)
        [[ -t 0 ]] || as_root=(sudo -n)
    fi
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -q -y "$@"
}

# Installs those of the named Debian packages that are missing; does nothing when none is.
install_missing() {
    local package missing=()
    if ! command -v dpkg-query >/dev/null; then
        say "not a Debian system, taking for granted: $*"
        return
    fi
    for package in "$@"; do
        is_installed "$package" || missing+=("$package")
    done
    ((${#missing[@]} > 0)) || return 0
    say "installing missing packages: ${missing[*]}"
    if ((EUID != 0)) && ! command -v sudo >/dev/null; then
        die "cannot install packages: neither root nor sudo; as root: apt-get install ${missing[*]}"
    fi
    apt_get update || die "cannot refresh the package lists; needed: ${missing[*]}"
    apt_get install --no-install-recommends "${missing[@]}" ||
        die "cannot install packages; as root: apt-get install ${missing[*]}"
}

# Everything that building and running takes.
set_up() {
    install_missing "${build_packages[@]}" "${run_packages[@]}"
}

# build PRESET JOBS
build() {
    say "building preset '$1'"
    (cd "$root" && cmake --preset "$1" && cmake --build --preset "$1" --parallel "$2") ||
        die "preset '$1' does not build"
}
