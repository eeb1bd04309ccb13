#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: guard.sh STORED ip|rsw LIBRARY SOURCE_DIRECTORY COMPILER [FLAG...]
# Is what a program relies on still what STORED says?
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
stored=$1
shift
now=$(mktemp)
trap 'rm -f "$now"' EXIT
"$(dirname "$0")/interface.sh" "$@" > "$now"
abidiff --harmless "$stored" "$now" && exit 0
cat <<END

What a program relies on that links lib$1 differs from tests/abi/$(basename "$stored"): see above; a variable of_NAME stands
for the exported NAME. Programs that were built before would break, or could not rely on what is new. If that is wanted,
say so: run tests/abi/renew and commit its result; for an incompatible change, raise the soname with it.
END
exit 1
