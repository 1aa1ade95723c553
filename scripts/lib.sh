# lib.sh - what the scripts share: the packages, configuring and building. Sourced, not run.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc)
# A compiler cache, where one is installed, keeps to the build folder.
export CCACHE_DIR=${CCACHE_DIR:-$root/build/ccache}

say() { printf '\n== %s\n' "$*"; }

# need_packages PURPOSE...: installs the Debian packages of those purposes that are missing.
need_packages() {
    local purpose wanted=() missing=() package
    for purpose in "$@"; do
        read -r -a wanted <<<"$(sed -n "s/^$purpose  *//p" scripts/packages)"
        for package in "${wanted[@]}"; do
            if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed'; then
                missing+=("$package")
            fi
        done
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    say "installing ${missing[*]}"
    $sudo apt-get update -qq
    $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
}

# build PRESET [TARGET...]: configures and builds; prints the log only when that fails.
build() {
    local preset=$1 log
    shift
    mkdir -p build
    log=build/$preset.log
    say "building $preset"
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" -j "$jobs" ${1:+--target "$@"}; } \
        >"$log" 2>&1; then
        grep -E 'error|warning|FAILED|undefined' -A3 "$log" | head -60 || tail -60 "$log"
        echo "building $preset failed; the whole log is $log" >&2
        return 1
    fi
}
