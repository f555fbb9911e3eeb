#!/usr/bin/env bash
# Builds the Debian packages of mcu_tool2 for amd64 (native build) and arm64
# (cross build with cmake/toolchains/aarch64-linux-gnu.cmake), release builds
# with Debian's hardening flags, then checks each package's contents and
# control data with dpkg-deb and runs lintian over them.
#   mcu-tool2      /usr/bin/mcu_tool2, its manual page and bash completion
#   mcu-tool2-dev  libmcu_tool2.a, mcu_tool2.h and utils.h, the CMake package
#                  and mcu_tool2.pc
# The packages end up in out/packages/. A third build, configured with the
# default prefix (/usr/local), is packaged too, to check that its packages
# still install under /usr. Needs dpkg-dev, lintian and the cross tools
# (scripts/deps.sh: installed with apt-get when missing and root). The
# virtual MCU is not packaged, so the package builds leave the tests and the
# vmcu out.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
outdir=out/packages
mkdir -p "$outdir"

# shellcheck source=scripts/deps.sh
. scripts/deps.sh
# shellcheck disable=SC2086 # a list of package names
mcu_deps_ensure package $MCU_DEPS_PACKAGES

fail() {
    echo "package: FAIL: $*" >&2
    exit 1
}

# Packages built from one commit are identical: every time stamp (the build
# stamp of the version line, the changelog, the archive members) is the
# commit's.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || date +%s)
export SOURCE_DATE_EPOCH

build_packages() {
    local arch=$1
    shift
    local dir=build-deb-$arch
    # Debian's flags for the architecture, all hardening features on, with
    # three changes: -Wdate-time is dropped because the version line carries
    # the build stamp on purpose (fixed by SOURCE_DATE_EPOCH above); -g is
    # dropped because no debug-symbol package is made (lintian wants the
    # static library stripped of debug sections); -fno-ident leaves out the
    # compiler's .comment section.
    local cppflags cxxflags ldflags
    export DEB_BUILD_MAINT_OPTIONS=hardening=+all
    cppflags=$(DEB_HOST_ARCH=$arch dpkg-buildflags --get CPPFLAGS 2>/dev/null | sed 's/-Wdate-time//')
    cxxflags=$(DEB_HOST_ARCH=$arch dpkg-buildflags --get CXXFLAGS 2>/dev/null | sed 's/\(^\| \)-g\( \|$\)/ /')
    ldflags=$(DEB_HOST_ARCH=$arch dpkg-buildflags --get LDFLAGS 2>/dev/null)
    rm -rf "$dir"
    cmake -S . -B "$dir" "$@" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
        -DMCU_BUILD_TESTS=OFF -DMCU_DEBIAN_DOCS=ON \
        -DCMAKE_CXX_FLAGS="$cppflags $cxxflags -fno-ident" -DCMAKE_EXE_LINKER_FLAGS="$ldflags" >/dev/null
    cmake --build "$dir" -j"$jobs" >/dev/null
    (cd "$dir" && cpack -G DEB >/dev/null)
    cp "$dir"/packages/*.deb "$outdir"/
}

check_package() {
    local deb=$1 arch=$2
    shift 2
    echo "== $deb"
    dpkg-deb --info "$deb" | sed -n '/^ [A-Z]/,$p'
    dpkg-deb --contents "$deb"
    dpkg-deb --field "$deb" Architecture | grep -qx "$arch" || fail "$deb: not Architecture: $arch"
    local contents
    contents=$(dpkg-deb --contents "$deb" | awk '{print $6}')
    for want in "$@"; do
        grep -qx -- "$want" <<<"$contents" || fail "$deb lacks $want"
    done
}

echo "== amd64 packages (native build)"
build_packages amd64
echo "== arm64 packages (cross build)"
# GNUInstallDirs picks the multiarch directory only for native builds.
build_packages arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
    -DCMAKE_INSTALL_LIBDIR=lib/aarch64-linux-gnu

echo "== amd64 packages of a build configured with the default prefix"
# Debian packages install under /usr whatever the build's prefix; the
# library directory is then plain lib/ (GNUInstallDirs picks the multiarch
# one only for the prefix /usr).
dir=build-deb-local
rm -rf "$dir"
cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Release -DMCU_BUILD_TESTS=OFF >/dev/null
grep -qx 'CMAKE_INSTALL_PREFIX:PATH=/usr/local' "$dir/CMakeCache.txt" || fail "default prefix is not /usr/local"
cmake --build "$dir" -j"$jobs" >/dev/null
(cd "$dir" && cpack -G DEB >/dev/null)
x=$(mktemp -d)
for deb in "$dir"/packages/*.deb; do
    paths=$(dpkg-deb --contents "$deb" | awk '{print $6}' | grep -v '^\./$')
    grep -v '^\./usr/' <<<"$paths" && fail "$deb has files outside /usr"
    grep '^\./usr/local' <<<"$paths" && fail "$deb has files under /usr/local"
    echo "$(basename "$deb"): $(wc -l <<<"$paths") paths, all under /usr, none under /usr/local"
    dpkg-deb --extract "$deb" "$x"
done
for f in bin/mcu_tool2 lib/libmcu_tool2.a include/mcu_tool2/mcu_tool2.h \
    lib/pkgconfig/mcu_tool2.pc lib/cmake/mcu_tool2/mcu_tool2Config.cmake; do
    [ -e "$x/usr/$f" ] || fail "default-prefix packages lack /usr/$f"
done
# The generated package files name no configure-time prefix, and lead from
# where they lie to the headers and the library under /usr.
grep -rl /usr/local "$x" && fail "default-prefix packages name /usr/local in the files above"
inc=$(PKG_CONFIG_PATH=$x/usr/lib/pkgconfig pkg-config --variable=includedir mcu_tool2)
[ "$(realpath "$inc")" = "$x/usr/include/mcu_tool2" ] || fail "pkg-config includedir $inc"
cmake -S examples/softver -B "$x/softver" -DCMAKE_PREFIX_PATH="$x/usr" >/dev/null ||
    fail "find_package(mcu_tool2) in the default-prefix packages"
echo "pkg-config includedir and find_package(mcu_tool2) resolve under the packages' /usr"
rm -rf "$x"

version=$(dpkg-deb --field build-deb-amd64/packages/mcu-tool2_*_amd64.deb Version)
for arch in amd64 arm64; do
    case $arch in
        amd64) ma=x86_64-linux-gnu ;;
        arm64) ma=aarch64-linux-gnu ;;
    esac
    tool=$outdir/mcu-tool2_${version}_$arch.deb
    dev=$outdir/mcu-tool2-dev_${version}_$arch.deb
    check_package "$tool" "$arch" ./usr/bin/mcu_tool2 ./usr/share/man/man1/mcu_tool2.1.gz \
        ./usr/share/bash-completion/completions/mcu_tool2 \
        ./usr/share/doc/mcu-tool2/copyright ./usr/share/doc/mcu-tool2/changelog.Debian.gz
    check_package "$dev" "$arch" "./usr/lib/$ma/libmcu_tool2.a" \
        ./usr/include/mcu_tool2/mcu_tool2.h ./usr/include/mcu_tool2/utils.h \
        "./usr/lib/$ma/cmake/mcu_tool2/mcu_tool2Config.cmake" \
        "./usr/lib/$ma/cmake/mcu_tool2/mcu_tool2Targets.cmake" \
        "./usr/lib/$ma/pkgconfig/mcu_tool2.pc" \
        ./usr/share/doc/mcu-tool2-dev/copyright ./usr/share/doc/mcu-tool2-dev/changelog.Debian.gz
    # The program in the package is built for the package's architecture.
    x=$(mktemp -d)
    dpkg-deb --extract "$tool" "$x"
    case $arch in
        amd64) file -L "$x/usr/bin/mcu_tool2" | grep -q 'x86-64' || fail "amd64 binary: $(file "$x/usr/bin/mcu_tool2")" ;;
        arm64) file -L "$x/usr/bin/mcu_tool2" | grep -q 'ARM aarch64' || fail "arm64 binary: $(file "$x/usr/bin/mcu_tool2")" ;;
    esac
    echo "binary: $(file -b "$x/usr/bin/mcu_tool2" | cut -d, -f1-2)"
    # The cross-built package names its dependencies by hand (no
    # dpkg-shlibdeps for a foreign architecture): the program must need
    # nothing but the C library, at most the glibc version named there.
    needed=$(readelf -d "$x/usr/bin/mcu_tool2" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | sort | xargs)
    echo "shared libraries: $needed; Depends: $(dpkg-deb --field "$tool" Depends)"
    case $needed in
        "libc.so.6" | "ld-linux-aarch64.so.1 libc.so.6") ;;  # both from libc6
        *) fail "$arch program needs $needed; update CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS" ;;
    esac
    glibc=$(objdump -T "$x/usr/bin/mcu_tool2" | grep -o 'GLIBC_[0-9.]*' | sed 's/GLIBC_//' |
        sort -V | tail -n 1)
    echo "newest glibc symbol version: $glibc"
    [ "$(printf '%s\n' "$glibc" 2.34 | sort -V | tail -n 1)" = 2.34 ] ||
        fail "$arch program needs glibc $glibc; update CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS"
    if [ "$arch" = arm64 ]; then
        qemu-aarch64 -L /usr/aarch64-linux-gnu "$x/usr/bin/mcu_tool2" --calc-crc16 313233343536373839
    else
        "$x/usr/bin/mcu_tool2" --calc-crc16 313233343536373839
    fi
    rm -rf "$x"
done

echo "== the amd64 development package serves find_package and pkg-config"
x=$(mktemp -d)
dpkg-deb --extract "$outdir/mcu-tool2-dev_${version}_amd64.deb" "$x"
cmake -S examples/softver -B "$x/softver" -DCMAKE_PREFIX_PATH="$x/usr" >/dev/null
cmake --build "$x/softver" >/dev/null
echo "examples/softver built against the package: $(sed -n 's/^mcu_tool2_DIR:PATH=//p' "$x/softver/CMakeCache.txt")"
PKG_CONFIG_PATH=$x/usr/lib/x86_64-linux-gnu/pkgconfig pkg-config --cflags --libs mcu_tool2
rm -rf "$x"

echo "== lintian"
# Any error or warning fails; the findings kept on purpose are overridden,
# each with its reason, in cmake/install/lintian-overrides/.
debs=("$outdir"/mcu-tool2*_"$version"_*.deb)
lintian --info --display-info --tag-display-limit 0 --fail-on error,warning "${debs[@]}" ||
    fail "lintian"
echo "lintian: no findings left; overridden:"
lintian --show-overrides --tag-display-limit 0 "${debs[@]}" 2>/dev/null | grep '^O:' | sort -u || true
ls -l "$outdir"
