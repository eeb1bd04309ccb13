#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: interface.sh ip|rsw LIBRARY SOURCE_DIRECTORY COMPILER [FLAG...]
# Writes what a program relies on when it links LIBRARY, as abidw has it: each name that it exports, with the type that
# its headers give it, and all types that are defined in those headers. C++ names are for the tree's own programs, which
# are installed with the very library that they were built with; they are left out.
#
# The types come from a small library that names everything once, and not from LIBRARY's debug information, which would
# have to be of ten times its size, and depends on what an optimizer left. LIBRARY's definitions have these types, since
# its sources include the headers. A name that no header declares does not compile.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
which=$1 library=$(realpath "$2") source=$(realpath "$3") compiler=$4
shift 4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/own"
case $which in
  ip) cp "$source"/routing/ip/include/*.h "$source"/routing/ip/catalog/*.h "$work/own" ;;
  rsw) cp "$source"/platform/include/*.h "$work/own" ;;
  *) echo "no such library: $which" >&2; exit 2 ;;
esac
cp -r "$source/platform/include" "$work/contract"
cd "$work"

{
  echo "#include <sys/mman.h>" # librsw has a shm_unlink of its own
  for header in own/*.h; do echo "#include \"${header#own/}\""; done
  # GNU readelf: number, address, size, type, binding, visibility, section, name[@version].
  readelf -W --dyn-syms "$library" |
    awk '$1 ~ /^[0-9]+:$/ && $7 != "UND" && $5 == "GLOBAL" { sub(/@.*/, "", $8); print $8 }' | grep -v '^_Z' |
    LC_ALL=C sort -u | sed 's/.*/__typeof__(\&&) const of_& = \&&;/'
} > interface.c
"$compiler" "$@" -std=gnu11 -g -gdwarf-4 -fno-eliminate-unused-debug-types -fdebug-prefix-map="$work=." -fPIC -shared \
  -nostdlib -w -fmax-errors=5 -Iown -Icontract interface.c -o interface.so
abidw --load-all-types --headers-dir own --drop-private-types --no-show-locs --no-comp-dir-path --no-corpus-path \
  --no-elf-needed --no-write-default-sizes --type-id-style hash interface.so
