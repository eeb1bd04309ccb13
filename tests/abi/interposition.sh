#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: interposition.sh LIBRARY COMPILER...
# Does a definition that is put in front of an exported function take effect inside LIBRARY as well? ip_address_martian asks
# ip_prefix_martian, ip_get_broadcast_address and ip_is_addr_in_prefix ask ip_bits2mask: each must change with its inner one.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
here=$(dirname "$(readlink -f "$0")")
library=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$here/stub_platform.sh" "$library" "$work/libplatform.so" "$@"

cat > "$work/ask.c" << 'SOURCE'
#include <stdint.h>
#include <stdio.h>
uint32_t ip_address_martian(uint32_t addr);
uint32_t ip_get_broadcast_address(uint32_t addr, uint8_t len);
uint32_t ip_is_addr_in_prefix(uint32_t addr, uint32_t prefix, uint8_t len);
int main(void) {
  printf("%u %08x %u\n", ip_address_martian(0x0a010101u), ip_get_broadcast_address(0x0a010101u, 24),
         ip_is_addr_in_prefix(0x0a010101u, 0x0a010201u, 24));
  return 0;
}
SOURCE
"$@" -std=c11 -o "$work/ask" "$work/ask.c" "$library" "$work/libplatform.so" -Wl,--no-as-needed \
  "-Wl,-rpath,$(dirname "$library"):$work"

cat > "$work/prefix_martian.c" << 'SOURCE'
#include <stdint.h>
uint32_t ip_prefix_martian(uint32_t addr) { return addr == 0x0a010101u; }
SOURCE
cat > "$work/bits2mask.c" << 'SOURCE'
#include <stdint.h>
uint32_t ip_bits2mask(uint8_t len) { return len == 24 ? 0xff000000u : 0; }
SOURCE
for name in prefix_martian bits2mask; do
  "$@" -std=c11 -shared -fPIC -o "$work/$name.so" "$work/$name.c"
done

status=0
expect() { # what, LD_PRELOAD, expected answers
  local answers
  answers=$(LD_PRELOAD=$2 "$work/ask")
  if [ "$answers" != "$3" ]; then
    echo "$1: the answers are '$answers', not '$3'"
    status=1
  fi
}
expect "without a definition in front" "" "0 0a0101ff 0"
expect "ip_prefix_martian in front" "$work/prefix_martian.so" "1 0a0101ff 0"
expect "ip_bits2mask in front" "$work/bits2mask.so" "0 0affffff 1"
exit $status
