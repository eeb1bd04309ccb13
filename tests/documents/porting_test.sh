#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: porting_test.sh SOURCE_DIRECTORY LIBRARY
# Does docs/porting.md name every name that the library leaves to its platform, every header of the contract, and no test
# that is not there?
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
source=$1
library=$2
page=$source/docs/porting.md
status=0
names=$(readelf -W --dyn-syms "$library" |
  awk '$1 ~ /^[0-9]+:$/ && $7 == "UND" && $5 == "GLOBAL" && $8 !~ /@/ { print $8 }')
[ "$(wc -w <<< "$names")" -gt 60 ] || { echo "the library asks its platform for nothing"; exit 1; }
for name in $names; do
  grep -qF "\`$name\`" "$page" || { echo "docs/porting.md does not name $name"; status=1; }
done
for header in "$source"/platform/include/*.h; do
  grep -qF "$(basename "$header")" "$page" || { echo "docs/porting.md does not name $(basename "$header")"; status=1; }
done
# shellcheck disable=SC2016
tests=$(grep -oE '`[a-z0-9_]+_test`' "$page" | tr -d '\`')
[ "$(wc -w <<< "$tests")" -gt 20 ] || { echo "the page names no tests"; exit 1; }
for name in $tests; do
  grep -qE "libip_test\($name\b" "$source/tests/platform/CMakeLists.txt" || { echo "there is no test $name"; status=1; }
done
exit $status
