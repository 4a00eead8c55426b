#!/usr/bin/env bash
# Compiles every public header by itself, with one compiler, so that none leans on what another includes.
# usage: headers_test.sh COMPILER INCLUDE-DIRECTORY
set -euo pipefail
compiler=$1
include_dir=$2
export compiler include_dir

check() {
    echo "#include \"$1\"" |
        "$compiler" -x c++ -std=c++20 -I "$include_dir" -fsyntax-only \
            -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror - || {
        echo "$1 does not compile alone with $compiler" >&2
        return 1
    }
}
export -f check

headers=$(cd "$include_dir" && find agent -name '*.h' | sort)
[ -n "$headers" ]
xargs -P 2 -I {} bash -c 'check {}' <<<"$headers"
echo '#include "agent/crc32c.h"' | # is for components written in C, too
    "$compiler" -x c -std=c11 -I "$include_dir" -fsyntax-only -Wall -Wextra -Wpedantic -Wconversion -Werror -
echo "$(wc -l <<<"$headers") headers compile alone with $compiler"
