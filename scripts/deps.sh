# Debian packages the project's commands need, in one place. Sourced by
# scripts/demo.sh, scripts/test-all.sh (and so .ci/run) and the scripts it
# runs; each calls
#   mcu_deps_ensure NAME <packages...>
# which checks with dpkg-query which of the packages are missing. None
# missing: nothing happens. Some missing: run as root, it installs them with
# apt-get (no recommends, non-interactive); run as another user, it prints the
# apt-get line to run and exits non-zero.
# shellcheck shell=bash disable=SC2034 # the lists are used by the scripts

# The demo: build the tool and the virtual MCU (g++ brings gcc and
# libc6-dev); the build that makes the virtual MCU configures the tests too,
# which need GoogleTest.
MCU_DEPS_DEMO="cmake make g++ libgtest-dev"
# The Android build (cmake/toolchains/aarch64-android21.cmake): clang, lld and
# libc++'s C++ headers; qemu-user runs its results.
MCU_DEPS_ANDROID="clang lld libc++-14-dev qemu-user"
# scripts/check-install.sh: manual page rendering, pkg-config, and a private
# mount namespace for the default-device check.
MCU_DEPS_INSTALL_CHECK="man-db groff-base pkg-config util-linux mount"
# scripts/package.sh: the Debian packages for amd64 and arm64 (cross build,
# the arm64 program run under qemu), checked with file and lintian.
MCU_DEPS_PACKAGES="dpkg-dev lintian file g++-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user
    pkg-config"
# scripts/test-all.sh: everything above, GoogleTest (the installed libraries
# for the native builds, its sources for the cross build), the fuzzing,
# sanitizer and profile runtimes of clang, llvm-profdata and llvm-cov for the
# coverage line (scripts/coverage.sh), valgrind, clang-tidy and cppcheck.
MCU_DEPS_TEST="$MCU_DEPS_DEMO gcc libc6-dev googletest libgtest-dev libclang-rt-14-dev llvm
    valgrind clang-tidy cppcheck $MCU_DEPS_ANDROID $MCU_DEPS_INSTALL_CHECK $MCU_DEPS_PACKAGES"

# Prints the packages of the arguments that are not installed, once each, in
# the order given.
mcu_deps_missing() {
    local installed pkg
    # One line per installed package, "name ii " for the installed ones
    # (a multi-arch package may be listed once per architecture).
    # dpkg-query fails when it knows one of them not at all.
    installed=$({ dpkg-query -W -f='${Package} ${db:Status-Abbrev}\n' "$@" 2>/dev/null || true; } |
        awk '$2 == "ii" { print $1 }' | sort -u)
    for pkg in $(printf '%s\n' "$@" | awk '!seen[$0]++'); do
        grep -qxF -- "$pkg" <<<"$installed" || printf '%s\n' "$pkg"
    done
}

# mcu_deps_ensure NAME PACKAGE...: see the top of this file. NAME is the
# command's name in its messages.
mcu_deps_ensure() {
    local name=$1
    shift
    if ! command -v dpkg-query >/dev/null; then
        echo "$name: not a Debian system; make sure these are installed: $*" >&2
        return 0
    fi
    local missing
    # shellcheck disable=SC2046 # the lists are words
    missing=$(mcu_deps_missing $(printf '%s ' "$@") | xargs)
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" != 0 ]; then
        {
            echo "$name: missing Debian packages: $missing"
            echo "$name: install them as root (or run this command as root, which installs them):"
            echo "    apt-get install -y --no-install-recommends $missing"
        } >&2
        exit 1
    fi
    echo "$name: installing the missing Debian packages: $missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get -q update
    # shellcheck disable=SC2086 # a list of package names
    apt-get -q install -y --no-install-recommends $missing
    # shellcheck disable=SC2086
    missing=$(mcu_deps_missing $missing | xargs)
    if [ -n "$missing" ]; then
        echo "$name: still missing after apt-get install: $missing" >&2
        exit 1
    fi
}
