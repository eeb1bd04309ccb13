#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# probes_test.sh documented SOURCE_DIRECTORY FILE...: the trace points in the files are those of docs/tracing.md, with as
#   many arguments.
# probes_test.sh latency SOURCE_DIRECTORY BIN: scripts/query_latency.bt names the queries of a process that asks. Where the
#   kernel lets nobody trace, only that the script compiles.
set -eu
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
case=$1 source_directory=$2
shift 2
work=$(mktemp -d)
processes=()
finish() {
  [ ${#processes[@]} -eq 0 ] || kill "${processes[@]}" 2>/dev/null || true
  wait
  rm -rf "$work"
}
trap finish EXIT
fail() { echo "FAILED: $*"; exit 1; }

documented() {
  readelf -n "$@" | awk '
    /Provider:/ { provider = $2 }
    /Name:/ { name = $2 }
    /Arguments:/ { print provider, name, NF - 1 }' | sort -u >"$work/there"
  # | `provider` | `probe` | arguments | when |: commas separate, and none is none. A provider is named after its file.
  local file providers=
  for file in "$@"; do file=${file##*/} providers+=${providers:+|}${file%%.*}; done
  awk -F' *[|] *' -v providers="^\`($providers)\`\$" '$2 ~ providers {
      gsub("`", "", $2); gsub("`", "", $3)
      print $2, $3, ($4 == "" ? 0 : split($4, arguments, /,/)) }' \
    "$source_directory/docs/tracing.md" | sort -u >"$work/documented"
  [ -s "$work/there" ] || fail "no trace points in $*"
  diff "$work/documented" "$work/there" || fail "docs/tracing.md (<) is not what the files have (>)"
}

latency() {
  local bin=$1 script=$source_directory/scripts/query_latency.bt
  export RSW_RUN_DIR=$work/run
  mkdir "$RSW_RUN_DIR"
  ip link set lo up
  "$bin/ipd" --foreground >"$work/ipd.log" 2>&1 &
  processes+=($!)
  "$bin/query_time" default 127.0.0.1 --for 280 >"$work/query.log" 2>&1 &
  processes+=($!)
  local asking=$!
  for _ in $(seq 600); do
    grep -qs "$RSW_RUN_DIR" "/proc/$asking/maps" && break
    kill -0 "$asking" 2>/dev/null || {  # it was earlier than ipd
      "$bin/query_time" default 127.0.0.1 --for 280 >"$work/query.log" 2>&1 &
      asking=$!
      processes+=("$asking")
    }
    read -r -t 0.1 <> <(:) || true
  done
  if ! timeout 60 bpftrace -p "$asking" -e 'usdt:*:libip:query_begin { exit(); }' >"$work/allowed" 2>&1; then
    echo "this kernel lets nobody trace: $(tail -n 1 "$work/allowed")"
    bpftrace -d -p "$asking" "$script" >/dev/null || fail "the script does not compile"
    return
  fi
  { cat "$script"; echo 'usdt:*:libip:query_end { @seen++; if (@seen > 1000) { exit(); } }'; } >"$work/script.bt"
  timeout 200 bpftrace -p "$asking" "$work/script.bt" >"$work/seen" 2>&1 || fail "$(tail -n 5 "$work/seen")"
  grep -q '^@nanoseconds\[ip_get_iod_for_local_address\]:' "$work/seen" || fail "no histogram: $(head -n 20 "$work/seen")"
  grep -Eq '^@queries\[ip_get_iod_for_local_address\]: [1-9]' "$work/seen" || fail "nothing counted"
}

case $case in
  documented) documented "$@" ;;
  latency)
    if [ "${IN_NAMESPACE:-}" != yes ]; then
      IN_NAMESPACE=yes unshare --net -- "$0" latency "$source_directory" "$@"
    else
      latency "$@"
    fi ;;
  *) fail "no case $case" ;;
esac
