#!/usr/bin/env bash
# Installs the build into a staging prefix and builds and runs a C host
# against what was installed, once through pkg-config and once through
# find_package. Usage: install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
stage=$work/stage
cmake --install "$build" --prefix "$stage" >/dev/null
libdir=$(dirname "$(find "$stage" -name libmorvocat.so -print -quit)")
export MORVOCAT_ROOT=$work/root MORVOCAT_LOG_STORE=$work/root/store
mkdir -p "$MORVOCAT_ROOT"

export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046
cc -o "$work/pc-host" "$source/tests/install/consumer/host.c" $(pkg-config --cflags --libs morvocat)
LD_LIBRARY_PATH=$libdir "$work/pc-host"

cmake -S "$source/tests/install/consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/consumer" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/consumer/host"

# The installed tools run from the prefix and answer for themselves.
export LD_LIBRARY_PATH=$libdir
"$stage/bin/morvocat" -d -b morvo_main
"$stage/bin/morvocat" --help | grep -q -- "--rotate-kbytes KB"
"$stage/bin/morvocat" --version | grep -qx "morvocat [0-9.]*"
"$stage/bin/morvo-log" -h | grep -q "^usage: morvo-log"
"$stage/bin/morvo-log" -p i -t install "lower-case priority"
"$stage/bin/morvocat" -d -b morvo_main | grep -q " I install : lower-case priority"
"$stage/bin/morvo-view" -h | grep -q "morvo-view"
echo "install test: pkg-config and find_package hosts ran"
