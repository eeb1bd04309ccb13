#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: headers.sh INCLUDE_DIRECTORIES(comma-separated) HEADERS(comma-separated) COMPILER...
# Does each header compile alone, twice, and together with the others in every rotation of the list, forward and backward,
# with each compiler (its language and width are part of its words), all warnings being errors?
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
includes=()
IFS=, read -ra directories <<< "$1"
for directory in "${directories[@]}"; do includes+=(-I "$directory"); done
IFS=, read -ra headers <<< "$2"
shift 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

warnings=(-Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wundef -Wcast-qual -Wcast-align -Wwrite-strings -Wredundant-decls
  -Wformat=2 -Wdouble-promotion -Wsign-conversion -Wmissing-declarations -Werror)

number=0
emit() { # the headers named, as one source
  number=$((number + 1))
  printf '#include "%s"\n' "$@" > "$work/$number.source"
}
for header in "${headers[@]}"; do
  emit "$header"
  emit "$header" "$header"
done
count=${#headers[@]}
for ((turn = 0; turn < count; turn++)); do
  forward=()
  backward=()
  for ((i = 0; i < count; i++)); do
    forward+=("${headers[(turn + i) % count]}")
    backward=("${headers[(turn + i) % count]}" "${backward[@]}")
  done
  emit "${forward[@]}"
  emit "${backward[@]}"
done
[ "$number" -gt 0 ] || { echo "no headers given"; exit 1; }

status=0
for compiler in "$@"; do
  case $compiler in
    *-std=c11*) language=c extra="-Wstrict-prototypes -Wmissing-prototypes" ;;
    *) language=c++ extra="-Wold-style-cast" ;;
  esac
  for ((i = 1; i <= number; i++)); do
    # shellcheck disable=SC2086  # a compiler is a command with options
    if ! $compiler -x $language "${warnings[@]}" $extra "${includes[@]}" -fsyntax-only "$work/$i.source" 2> "$work/errors"; then
      echo "$compiler:"
      cat "$work/$i.source"
      head -5 "$work/errors"
      status=1
    fi
  done
done
exit $status
