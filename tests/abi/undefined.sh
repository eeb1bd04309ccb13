#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: undefined.sh LIBRARY CONTRACT_DIRECTORY
# Are the undefined symbols of LIBRARY names that the headers in CONTRACT_DIRECTORY declare, or the C and C++ runtime's?
# Another platform can be put under the library exactly as long as this holds.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
library=$1
contract=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Every word of the headers outside comments that is followed by "(" , "[" or ";" may be a declared name.
cat "$contract"/*.h | sed -e 's,/\*.*\*/,,; s,//.*,,' | grep -oE '[a-z_0-9]+ *[][(;]' | grep -oE '[a-z_0-9]+' |
  LC_ALL=C sort -u > "$work/contract"
readelf -W --dyn-syms "$library" | awk '$1 ~ /^[0-9]+:$/ && $7 == "UND" && $8 != "" { print $5, $8 }' > "$work/undefined"
[ -s "$work/undefined" ] || { echo "no undefined symbols at all in $library"; exit 1; }

status=0
contract_names=0
while read -r binding name; do
  case $name in
    *@GLIBC_* | *@GCC_* | *@CXXABI_* | *@GLIBCXX_*) continue ;;
  esac
  # Hooks of the C runtime that are there or not.
  if [ "$binding" = WEAK ]; then
    case $name in __gmon_start__ | _ITM_deregisterTMCloneTable | _ITM_registerTMCloneTable) continue ;; esac
  fi
  if grep -qxF "$name" "$work/contract"; then
    contract_names=$((contract_names + 1))
  else
    echo "neither the platform contract's nor the runtime's: $binding $name"
    status=1
  fi
done < "$work/undefined"
[ "$contract_names" -gt 0 ] || { echo "not one call to the platform: is this the right library?"; status=1; }

# What the loader is told to bring along: the C library, and nothing of the platform.
if readelf -d "$library" | grep NEEDED | grep -vE '\[(libc|ld-linux[^]]*)\.so'; then
  echo "the library is linked against more than the C library, see above"
  status=1
fi
exit $status
