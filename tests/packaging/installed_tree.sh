#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: installed_tree.sh PkgConfig|FindPackage BUILD_DIRECTORY SOURCE_DIRECTORY COMPILER [FLAG...]
# Installs the libraries, moves the tree, and builds and runs a client with nothing but what a stranger would have.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
way=$1
build=$2
source=$3
compiler=$4
shift 4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for component in libip1 libip-dev librsw1 librsw-dev; do
  cmake --install "$build" --prefix "$work/first" --component "$component" > "$work/log" || { cat "$work/log"; exit 1; }
done
mv "$work/first" "$work/prefix"
libraries=$(dirname "$(find "$work/prefix" -name libip.so)")
grep -rlF -e "$source" -e "$build" "$work/prefix" --include='*.h' --include='*.pc' --include='*.cmake' &&
  { echo "installed files name the tree that they were built in"; exit 1; }
cp "$source/examples/list_interfaces.c" "$work/client.c"

case $way in
  PkgConfig)
    export PKG_CONFIG_LIBDIR=$libraries/pkgconfig
    read -ra words <<< "$(pkg-config --cflags --libs libip)"
    "$compiler" "$@" -Wall -Wextra -Werror "$work/client.c" "${words[@]}" -o "$work/client"
    # The installed headers are enough for each example, in either language.
    read -ra words <<< "$(pkg-config --cflags libip)"
    cp "$source"/examples/*.[ch]* "$work"
    for example in "$work"/*.c "$work"/*.cc; do
      language=()
      [[ $example != *.cc ]] || language=(-std=c++20)
      "$compiler" "$@" "${language[@]}" -Wall -Wextra -Werror "${words[@]}" -c "$example" -o "$work/example.o"
    done
    ;;
  FindPackage)
    cat > "$work/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(client C)
find_package(libip 0.1 REQUIRED)
add_executable(client client.c)
target_link_libraries(client PRIVATE libip::ip librsw::rsw)
END
    cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" -DCMAKE_C_COMPILER="$compiler" \
      -DCMAKE_C_FLAGS="$*" > "$work/log" 2>&1 || { cat "$work/log"; exit 1; }
    cmake --build "$work/build" > "$work/log" 2>&1 || { cat "$work/log"; exit 1; }
    mv "$work/build/client" "$work/client"
    ;;
  *) echo "no such way: $way"; exit 2 ;;
esac

readelf -d "$work/client" | grep -q 'NEEDED.*libip\.so\.1\]' || { echo "the client does not ask for libip.so.1"; exit 1; }
mkdir "$work/run"
RSW_RUN_DIR=$work/run LD_LIBRARY_PATH=$libraries "$work/client" > "$work/output" 2>&1 && status=0 || status=$?
if [ "$status" -ne 1 ] || ! grep -q 'no ipd to ask' "$work/output"; then
  echo "without ipd it should end with 1 and say so; it ended with $status:"
  cat "$work/output"
  exit 1
fi
