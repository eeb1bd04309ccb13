#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: reference_test.sh SOURCE_DIRECTORY DOXYFILE CASE
# The HTML reference: made without a warning, with what the headers and the documents say; and a warning fails.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
source=$1
doxyfile=$2
case=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# reference [SETTING...]: made into the test's own directory.
reference() {
  { cat "$doxyfile"; printf '%s\n' "OUTPUT_DIRECTORY = $work" "$@"; } | doxygen - > "$work/log" 2>&1
}

# says FILE TEXT
says() {
  sed 's/<[^>]*>//g' "$work/html/$1" | tr -s ' \n' ' ' | grep -qF -- "$2" || { echo "$1 does not say: $2"; exit 1; }
}

case $case in
  it_builds_without_a_warning)
    reference || { cat "$work/log"; exit 1; }
    [ ! -s "$work/log" ] || { cat "$work/log"; exit 1; }
    says index.html "The client library of the IPv4 service"
    says ip__api_8h.html "iod: an interface, as the interface manager numbers them"
    page=$(basename "$(grep -lF 'Registers with the IP process' "$work"/html/group__ip__api__*.html)")
    says "$page" "at most 67 characters; null: none"
    says "$page" "Until the reply, or until the IP process is gone."
    says tsp_8h.html "Opens the database's lock for this process."
    undocumented=$(awk '/^function/ { print $2 }' "$source/tests/abi/exports.txt" | while read -r name; do
      grep -hq "[ >]$name()" "$work"/html/globals_func*.html || echo "$name"
    done)
    [ -z "$undocumented" ] || { echo "not in the index of functions: $undocumented"; exit 1; }
    ;;
  a_wrong_word_fails)
    printf '# A page\n\n@ref no_such_thing\n' > "$work/page.md"
    ! reference "INPUT = $work/page.md" "USE_MDFILE_AS_MAINPAGE =" || { echo "it is no error"; exit 1; }
    grep -qF "no_such_thing" "$work/log" || { cat "$work/log"; exit 1; }
    ;;
  *) echo "no such case: $case"; exit 2 ;;
esac
