#!/usr/bin/env bash
# Installs the library to a fresh prefix, moves the prefix, and builds and runs the README's example against it:
# once through find_package, once through pkg-config.
# usage: install_test.sh BUILD-DIRECTORY CXX-COMPILER VERSION
set -euo pipefail
build_dir=$1 compiler=$2 version=$3
here=$(dirname "$(readlink -f "$0")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/staged" >/dev/null
mv "$work/staged" "$work/prefix"
library=$(find "$work/prefix" -name libagentkit.so.1)
library_dir=$(dirname "$library")
[ "$(readlink "$library")" = "libagentkit.so.$version" ]

mkdir "$work/program"
cp "$here/foreign/CMakeLists.txt" "$work/program"
# shellcheck disable=SC2016  # no expansion wanted
sed -n '/^```cpp$/,/^```$/{/^```/d;p}' "$here/../../README.md" >"$work/program/main.cpp"
[ -s "$work/program/main.cpp" ]

expect() {
    local output
    output=$("$1")
    [ "$output" = "Blocks to back up: [7, 9)" ] || {
        echo "$1 printed \"$output\"" >&2
        exit 1
    }
}

cmake -G Ninja -S "$work/program" -B "$work/build" -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_PREFIX_PATH="$work/prefix" -DWANTED_VERSION="${version%.*}" >/dev/null
cmake --build "$work/build" >/dev/null
expect "$work/build/foreign"

export PKG_CONFIG_PATH="$library_dir/pkgconfig"
[ "$(pkg-config --modversion agentkit)" = "$version" ]
# shellcheck disable=SC2046  # a list of words
"$compiler" -std=c++20 "$work/program/main.cpp" $(pkg-config --cflags --libs agentkit) -o "$work/foreign"
LD_LIBRARY_PATH=$library_dir expect "$work/foreign"
echo "find_package and pkg-config both work from $version"
