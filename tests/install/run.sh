#!/bin/bash
# Installs the built library into a scratch prefix, then builds and runs a
# small outside program against it, once through pkg-config and once through
# the CMake package.
set -euo pipefail
build_dir=$1
source_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
libdir=$(ls -d "$work"/prefix/lib*/pkgconfig | head -n1)
libdir=${libdir%/pkgconfig}

# A sanitized build of the library needs the same runtime in the program.
flags=${QK_CONSUMER_FLAGS:-}

export PKG_CONFIG_PATH="$libdir/pkgconfig"
${CC:-cc} -std=c11 -Wall -Wextra -Werror $flags "$source_dir/consumer.c" -o "$work/consumer-pc" \
    $(pkg-config --cflags --libs qkcommon)
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc" | grep -q '^consumer ok 4\.5\.68'

mkdir -p "$work/cmake-src"
cp "$source_dir/consumer.c" "$work/cmake-src/"
cat > "$work/cmake-src/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.25)
project(consumer C)
find_package(qkcommon REQUIRED)
add_executable(consumer consumer.c)
target_link_libraries(consumer PRIVATE qkcommon::qkcommon)
CMAKE
cmake -S "$work/cmake-src" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer" | grep -q '^consumer ok 4\.5\.68'
echo "install consumer: pkg-config and CMake package both work"
