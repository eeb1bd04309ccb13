#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: tutorial_test.sh SOURCE_DIRECTORY BUILD_DIRECTORY
# Does docs/tutorial.md work as it stands there? Its programs are written to the files that their first lines name, its
# "sh" blocks run in their order in one shell, and each prints what stands in the "text" block that follows it. The
# installed tree, a namespace, and who ends what was left running are the test's.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
  echo "$*"
  exit 1
}

# What a reader types in other shells is not run as it is.
shellblocks=$(awk '/^```console$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$source/docs/tutorial.md")
# shellcheck disable=SC2016
for typed in 'cmake --preset native' 'cmake --build --preset native' \
  'cmake --install build/native --prefix $HOME/libip' 'unshare --map-root-user --net --mount'; do
  grep -qxF -- "$typed" <<< "$shellblocks" || fail "the tutorial no longer says: $typed"
done
DESTDIR=$work cmake --install "$build" --prefix /libip > "$work/log" || { cat "$work/log"; exit 1; }

mkdir "$work/here" "$work/expected" "$work/actual"
cd "$work/here"
awk -v work="$work" '
  /^```(c|cpp|cmake)$/ { getline first; name = first; sub(/^(\/\/|#) /, "", name); print first > name; file = name; next }
  /^```sh$/ { ++block; file = work "/script"; print "{" > file; next }
  /^```text$/ { file = work "/expected/" block; next }
  /^```console$/ { file = "/dev/null"; next }
  /^```$/ { if (file == work "/script") print "} > " work "/actual/" block > file; file = ""; next }
  file != "" { print > file }' "$source/docs/tutorial.md"
for name in first.c watch.c hello.cc CMakeLists.txt; do [ -s "$name" ] || fail "the tutorial has no $name"; done

# Everything that was left running ends with the process-id namespace.
namespaces=(--net --mount --pid --fork --kill-child --mount-proc)
[ "$(id -u)" -eq 0 ] || namespaces+=(--map-root-user)
HOME=$work timeout 170 unshare "${namespaces[@]}" bash -eu "$work/script" > "$work/log" 2>&1 && status=0 || status=$?
[ "$status" -eq 0 ] || { cat "$work"/actual/*; cat "$work/log"; fail "the commands ended with $status"; }
said=$(find "$work/expected" -type f | wc -l)
[ "$said" -ge 6 ] || fail "only $said blocks say what is printed"
for expected in "$work"/expected/*; do
  # A build says more than its programs, and a command line ends columns with blanks.
  tail -n "$(wc -l < "$expected")" "$work/actual/$(basename "$expected")" | sed 's/ *$//' | diff "$expected" - ||
    fail "block $(basename "$expected") prints something else (>) than the tutorial says (<)"
done
