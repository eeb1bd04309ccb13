#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: packet_words.sh PACKET_HEADER DOCUMENT SHOW_HEADER
# Does the document name each record of a packet message, each of its members that has a meaning, each flag, and each
# outcome?
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
header=$1 document=$2 outcomes=$3
# Records with members, one "record member" a line; reserved bytes mean nothing.
members() {
  sed 's,//.*,,' "$header" | awk '/^struct ip_msg_[a-z0-9_]* [{]/ {record = $2}
       /^};/ {record = ""}
       record != "" && /;/ && !/^struct/ {
         line = $0; sub(/;.*/, "", line); sub(/\[.*/, "", line); count = split(line, words, " "); print record, words[count]
       }' | grep -v ' reserved[0-9]*$'
}
status=0 checked=0
missing() {
  echo "$document does not name $1"
  status=1
}
while read -r record member; do
  grep -qF "\`struct $record\`" "$document" || missing "struct $record"
  grep -qE "\`$member\`" "$document" || missing "$member of struct $record"
  checked=$((checked + 1))
done < <(members)
[ "$checked" -gt 60 ] || { echo "only $checked members were found in $header"; exit 1; }
for flag in $(grep -oE '^#define IP_(OUTPUT_DONT_ROUTE|OUTPUT_LOOPBACK|REPLICATE_[A-Z]+|L2_[A-Z]+)' "$header" | cut -d' ' -f2); do
  grep -qF "\`$flag\`" "$document" || missing "$flag"
done
for outcome in $(sed -nE 's/^#define IP_SHOW_PACKET_([A-Z_]+) .*/\1/p' "$outcomes" | grep -v '^OUTCOMES$'); do
  name=$(tr 'A-Z_' 'a-z-' <<< "$outcome")
  [ "$name" = unknown-minor ] && name=unknown
  grep -qF "\`$name\`" "$document" || missing "the outcome $name"
  checked=$((checked + 1))
done
echo "$checked members and outcomes looked up"
exit $status
