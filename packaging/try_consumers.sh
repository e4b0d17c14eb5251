#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Installs a build of the library and builds a host with it, as another project does: with CMake's find_package, with
# pkg-config, and with a compiler that lacks C++23, which must say so.
#
# usage: try_consumers.sh BUILD_FOLDER static|shared [COMPILER [FLAG...]]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=$1 kind=$2 compiler=${3:-g++}
flags=("${@:4}")
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
stage=$scratch/stage
host=examples/minimal_host.cpp

fail() {
  echo "$*" >&2
  exit 1
}

# Runs the host HOST on the sample log. It must find what the log holds.
try() {
  local found
  found=$(LD_LIBRARY_PATH=$lib "$1" examples/sample.log "$scratch/$RANDOM.db" 'connect wifi NOT tag:chatty' | wc -l)
  [ "$found" = 50 ] || fail "$kind, $2: the host found $found records instead of 50"
  echo "$kind, $2: $found records found"
}

cmake --install "$build" --prefix "$stage" >"$scratch/log"
lib=$(dirname "$(find "$stage" -name 'libRuneflowCore.*' | head -n 1)")
export PKG_CONFIG_PATH=$lib/pkgconfig

cmake -S tests/consumer -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$stage" -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_CXX_FLAGS="${flags[*]}" -DHOST_SOURCE="$PWD/$host" >"$scratch/log"
cmake --build "$scratch/cmake" >>"$scratch/log" || fail "$(cat "$scratch/log")"
try "$scratch/cmake/consumer" CMake

static=()
[ "$kind" = shared ] || static=(--static)
read -ra wanted <<<"$(pkg-config "${static[@]}" --cflags --libs runeflow-core)"
"$compiler" -std=c++23 "${flags[@]}" "$host" -o "$scratch/host" "${wanted[@]}"
try "$scratch/host" pkg-config

# A shared library exports its own names only, and instances of templates that carry them.
if [ "$kind" = shared ]; then
  strangers=$(nm -D --defined-only -C "$lib/libRuneflowCore.so" |
    awk '$2 ~ /[TDBR]/' | grep -vE ' (vtable for |typeinfo (name )?for )?(runeflow::|std::hash<runeflow::)' || true)
  [ -z "$strangers" ] || fail "exported, but no part of the interface:"$'\n'"$strangers"
  soname=$(objdump -p "$lib/libRuneflowCore.so" | awk '/SONAME/ { print $2 }')
  echo "$kind: exports only its own names; SONAME $soname"
fi

# Every public header, by itself, names what a C++20 compiler lacks, in its first error.
for header in $(cd "$stage/include" && find runeflow -name '*.h' ! -name export.h ! -name short_text.h); do
  echo "#include \"$header\"" >"$scratch/old.cpp"
  said=$("$compiler" -std=c++20 "${flags[@]}" -fsyntax-only -I"$stage/include" "$scratch/old.cpp" 2>&1 || true)
  grep -m 1 error: <<<"$said" | grep -q 'need C++23: compile with -std=c++23' || fail "$header, in C++20: $said"
done
echo "$kind: a C++20 compiler is told that C++23 is missing"
