#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# install_test.sh BUILD_DIR CONSUMER_SRC LIBDIR CC, with CONSUMER_CFLAGS and
# CONSUMER_LDFLAGS in the environment (those of the build, sanitizers included).
# Installs BUILD_DIR into a fresh prefix, checks what landed there, and builds and runs
# the consumer daemon against it through pkg-config and through find_package.
#
# The consumer calls nothing of the platform layer and is linked with --as-needed (the
# default of many distributions' toolchains), so it does not list libvelmar_hostplat
# itself: it starts only if the core library finds its platform library from wherever
# the prefix is. It runs without LD_LIBRARY_PATH.
set -euo pipefail
build=$1 consumer=$2 libdir=$3 cc=$4
cflags=${CONSUMER_CFLAGS:-} ldflags=${CONSUMER_LDFLAGS:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"
fail() { echo "install test: $*" >&2; exit 1; }

cmake --install "$build" --prefix "$prefix" > "$work/install.log"

# The SONAME link chain: the development name -> the SONAME -> the real file.
lib="$prefix/$libdir"
for name in velmar_sastox velmar_hostplat; do
  [ "$(readlink "$lib/lib$name.so")" = "lib$name.so.1" ] || fail "lib$name.so is not a link to lib$name.so.1"
  [ -f "$lib/lib$name.so.1.0.0" ] && [ -L "$lib/lib$name.so.1" ] || fail "lib$name.so.1 -> .so.1.0.0 missing"
  readelf -d "$lib/lib$name.so.1.0.0" | grep -q "SONAME.*\[lib$name.so.1\]" || fail "lib$name has no SONAME lib$name.so.1"
done
for header in velmar_sastox.h velmar_ext.h velmar_version.h dm_msg.h dm_udp.h dm_hdc.h dm_platform.h host_platform.h host_hdc.h host_devmgr.h; do
  [ -f "$prefix/include/velmar_sastox/$header" ] || fail "header $header not installed"
done
for doc in LICENSE NEWS; do
  [ -f "$prefix/share/doc/velmar_sastox/$doc" ] || fail "$doc not installed"
done
# The tools run from the prefix without help (their RPATH points at its libraries).
"$prefix/bin/dmctl" --help > /dev/null || fail "installed dmctl does not run"

# Runs a consumer binary: it must not name the platform library itself (else this test
# would not test what it claims to) and must answer without any help from the environment.
run_consumer() {
  local bin=$1 how=$2
  if readelf -d "$bin" | grep -q "NEEDED.*libvelmar_hostplat"; then
    fail "the $how consumer lists libvelmar_hostplat itself; --as-needed did not apply"
  fi
  env -u LD_LIBRARY_PATH VELMAR_LOG_LEVEL=error "$bin" || fail "the consumer built with $how failed"
}
ldflags="$ldflags -Wl,--as-needed"

# 1. pkg-config
export PKG_CONFIG_PATH="$lib/pkgconfig"
# shellcheck disable=SC2046,SC2086
"$cc" $cflags $(pkg-config --cflags velmar_sastox) "$consumer/consumer.c" -o "$work/consumer_pc" \
  $ldflags $(pkg-config --libs velmar_sastox) -Wl,-rpath,"$(pkg-config --variable=libdir velmar_sastox)"
run_consumer "$work/consumer_pc" pkg-config

# 2. find_package
generator=()
command -v ninja > /dev/null && generator=(-G Ninja)
cmake -S "$consumer" -B "$work/cmake" "${generator[@]}" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$cflags" -DCMAKE_EXE_LINKER_FLAGS="$ldflags" > "$work/configure.log" \
  || { cat "$work/configure.log"; fail "configure with find_package failed"; }
cmake --build "$work/cmake" > "$work/build.log" || { cat "$work/build.log"; fail "build with find_package failed"; }
run_consumer "$work/cmake/consumer" find_package
echo "install test: pkg-config and find_package consumers ran"
