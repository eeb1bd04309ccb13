#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: stub_platform.sh LIBRARY OUTPUT COMPILER...
# Builds into OUTPUT a shared library that defines every name which LIBRARY leaves to the platform, as a function that does
# nothing: enough to load LIBRARY and to call what needs no platform.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
library=$1
output=$2
shift 2
readelf -W --dyn-syms "$library" |
  awk '$1 ~ /^[0-9]+:$/ && $7 == "UND" && $5 == "GLOBAL" && $8 !~ /@/ { print "long " $8 "(void) { return 0; }" }' > "$output.c"
[ -s "$output.c" ] || { echo "$library leaves nothing to the platform"; exit 1; }
"$@" -std=gnu11 -w -fno-builtin -shared -fPIC -o "$output" "$output.c"
