#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: readme_client.sh SOURCE_DIRECTORY LIBRARY_DIRECTORY COMPILER [FLAG...]
# Is the client in README.md the example, to the letter, and does it build with the command that stands under it?
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
source=$1
libraries=$2
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

awk '/^```c$/ { inside = 1; next } /^```$/ { inside = 0 } inside' "$source/README.md" > "$work/client.c"
[ -s "$work/client.c" ] || { echo "README.md shows no client"; exit 1; }
sed -n '/^#include/,$p' "$source/examples/list_interfaces.c" | diff - "$work/client.c" ||
  { echo "README.md (>) and examples/list_interfaces.c (<) differ"; exit 1; }

cd "$source"
# shellcheck disable=SC2016
command=$(sed -n 's/^Built with `cc client.c \(.*\)`\.$/\1/p' README.md)
[ -n "$command" ] || { echo "README.md does not say how to build the client"; exit 1; }
read -ra words <<< "${command//build\/native\/lib/$libraries}"
"$@" "$work/client.c" "${words[@]}" -o "$work/client"
RSW_RUN_DIR=$work LD_LIBRARY_PATH=$libraries "$work/client" > "$work/output" 2>&1 && status=0 || status=$?
if [ "$status" -ne 1 ] || ! grep -q 'no ipd to ask' "$work/output"; then
  echo "without ipd it should end with 1 and say so; it ended with $status:"
  cat "$work/output"
  exit 1
fi
