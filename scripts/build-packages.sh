#!/usr/bin/env bash
# Builds the Debian packages in a build folder of their own, configured as Debian builds a CMake
# project: installed under /usr (so the libraries go to the multiarch folder), the shared library,
# Debian's compiler and linker flags (dpkg-buildflags: hardening, -g for the -dbgsym packages).
#
#   scripts/build-packages.sh [BUILD_DIR [CMAKE_ARGUMENTS...]]
#
# BUILD_DIR defaults to build-deb; the packages land in BUILD_DIR/packages. Tests and benchmarks are
# not built. CMAKE_CXX_COMPILER_LAUNCHER=ccache in the environment is honoured by CMake itself.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$root/build-deb}"
shift || true

for program in cmake cpack dpkg-buildflags dpkg-shlibdeps objcopy gzip; do
    if ! command -v "$program" >/dev/null; then
        echo "build-packages: $program is missing; run scripts/install-deps.sh" >&2
        exit 1
    fi
done

# The flags name the source folder (-ffile-prefix-map) as seen from where they are asked. Every
# hardening feature, bindnow too: quorlix publish runs as a long-lived service.
cd "$root"
export DEB_BUILD_MAINT_OPTIONS="${DEB_BUILD_MAINT_OPTIONS:-hardening=+all}"
cxxflags="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
ldflags="$(dpkg-buildflags --get LDFLAGS)"

generator=()
if [[ ! -f "$build/CMakeCache.txt" ]] && command -v ninja >/dev/null; then
    generator=(-G Ninja)
fi
cmake -S "$root" -B "$build" "${generator[@]}" -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_SHARED_LIBS=ON \
    -DQUORLIX_BUILD_TOOLS=ON -DQUORLIX_BUILD_EXAMPLES=ON \
    -DQUORLIX_BUILD_TESTS=OFF -DQUORLIX_BUILD_BENCHMARKS=OFF \
    -DQUORLIX_BUILD_QUICK=ON \
    "-DCMAKE_CXX_FLAGS=$cxxflags" "-DCMAKE_EXE_LINKER_FLAGS=$ldflags" \
    "-DCMAKE_SHARED_LINKER_FLAGS=$ldflags" "-DCMAKE_MODULE_LINKER_FLAGS=$ldflags" "$@"
cmake --build "$build" -j "$(nproc)"
rm -rf "$build/packages"
# cpack reports an error of a post-build script but still succeeds: look for one.
cpack --config "$build/CPackConfig.cmake" -B "$build/packages" 2>&1 | tee "$build/cpack.log"
if grep -q "CMake Error" "$build/cpack.log"; then
    echo "build-packages: cpack failed (see above)" >&2
    exit 1
fi
ls -l "$build"/packages/*.deb "$build"/packages/*.ddeb 2>/dev/null || true
