#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: exports.sh LIBRARY EXPORTS
# Do the dynamic symbols of LIBRARY equal the list in EXPORTS, name for name and kind for kind; does every object have a
# size, without which a program that holds a copy of it would get an empty one; do the catalogue's records ascend?
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
library=$1
exports=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

# Symbol tables of GNU readelf: number, address, size, type, binding, visibility, section, name[@version].
readelf -W --dyn-syms "$library" | awk '$1 ~ /^[0-9]+:$/ && $7 != "UND" && $8 != "" { print }' > "$work/symbols"
awk '{ kind = $4 == "FUNC" ? "function" : $4 == "OBJECT" ? "object" : $4; print kind, $8 }' "$work/symbols" |
  LC_ALL=C sort > "$work/actual"
grep -v '^#' "$exports" | LC_ALL=C sort > "$work/expected"
[ -s "$work/actual" ] || { echo "no dynamic symbols at all in $library"; exit 1; }

if ! diff "$work/expected" "$work/actual" > "$work/difference"; then
  echo "exported names differ from the list (< missing, > not in the list):"
  grep '^[<>]' "$work/difference"
  status=1
fi

if awk '$4 == "OBJECT" && $3 == 0 { print; found = 1 } END { exit !found }' "$work/symbols"; then
  echo "objects without a size, see above"
  status=1
fi

for family in syslog_msg_IP_ msg_error_IP_; do
  grep -o "${family}[A-Z_]*\$" "$exports" > "$work/table_order"
  awk -v family="$family" 'index($8, family) == 1 { print $2, $8 }' "$work/symbols" | LC_ALL=C sort |
    awk '{ print $2 }' > "$work/memory_order"
  if ! diff "$work/table_order" "$work/memory_order" > /dev/null; then
    echo "records ${family}... do not ascend in memory in table order:"
    cat "$work/memory_order"
    status=1
  fi
done
exit $status
