#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: guard_test.sh CASE LIBRARY SOURCE_DIRECTORY COMPILER [FLAG...]
# The guard of libip's interface, with a library or headers that differ a little from LIBRARY and SOURCE_DIRECTORY: it has to
# fail, and to name what changed.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
case=$1 library=$2 source=$3
shift 3
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/routing/ip" "$work/platform"
cp -r "$source/routing/ip/include" "$source/routing/ip/catalog" "$work/routing/ip"
cp -r "$source/platform/include" "$work/platform"
"$here/interface.sh" ip "$library" "$source" "$@" > "$work/stored.abi"

# edit FILE EXPRESSION: which must change something.
edit() {
  sed -E -i.before "$2" "$work/routing/ip/include/$1"
  ! cmp -s "$work/routing/ip/include/$1" "$work/routing/ip/include/$1.before" || { echo "nothing to edit in $1"; exit 1; }
  rm "$work/routing/ip/include/$1.before"
}
# A library that exports the same names but one, or one more.
library_with() {
  readelf -W --dyn-syms "$library" | awk '$1 ~ /^[0-9]+:$/ && $7 != "UND" && $5 == "GLOBAL" { print $8 }' | sed 's/@.*//' |
    "$@" | sed 's/.*/.globl &\n&: .byte 0/' > "$work/library.s"
  library=$work/library.so
}

case $case in
  TheSame) named= ;;
  ANameIsGone) library_with grep -vx ip_get_mtu; named="of_ip_get_mtu" ;;
  ANameIsNew)
    library_with sed -n 'p; s/^ip_get_mtu$/ip_get_mtus/p'
    edit ip_api.h 's/^uint32_t ip_get_mtu\(.*/&\nuint32_t ip_get_mtus(uint32_t iod);/'
    named=of_ip_get_mtus ;;
  AParameterIsWider) edit ip_api.h 's/(ip_get_mtu\()uint32_t/\1uint64_t/'; named="of_ip_get_mtu" ;;
  AMemberIsNew)
    edit ip_api.h '/^static_assert\(.*ip_icmp_err_source/d; s/struct ip_icmp_err_source \{/&\n  uint32_t intruder;/'
    named=intruder ;;
  *) echo "no such case: $case"; exit 2 ;;
esac
if [ -f "$work/library.s" ]; then "$1" "${@:2}" -shared -nostdlib "$work/library.s" -o "$library"; fi

"$here/guard.sh" "$work/stored.abi" ip "$library" "$work" "$@" > "$work/said" 2>&1 && status=0 || status=$?
if [ -z "$named" ]; then
  [ "$status" -eq 0 ] || { cat "$work/said"; exit 1; }
elif [ "$status" -eq 0 ] || ! grep -q "$named" "$work/said" || ! grep -q 'run tests/abi/renew' "$work/said"; then
  echo "it was to fail and to name $named; it ended with $status:"
  cat "$work/said"
  exit 1
fi
