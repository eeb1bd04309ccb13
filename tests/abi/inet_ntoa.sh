#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: inet_ntoa.sh LIBRARY COMPILER...
# A C program calls inet_ntoa(struct in_addr) as <arpa/inet.h> declares it. Linked with LIBRARY, and also when the library is
# only loaded in front of a program that was linked without it, the library's definition must serve, with the right text.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
here=$(dirname "$(readlink -f "$0")")
library=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$here/stub_platform.sh" "$library" "$work/libplatform.so" "$@"

cat > "$work/ask.c" << 'SOURCE'
#define _GNU_SOURCE
#include <arpa/inet.h>
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

static int wrong;

static void expect(const char *text) {
  struct in_addr address;
  if (inet_aton(text, &address) == 0 || strcmp(inet_ntoa(address), text) != 0) {
    printf("%s came back as %s\n", text, inet_ntoa(address));
    wrong = 1;
  }
}

/* The library's definition and the C library's each have a buffer of their own. */
static void expect_definition_of(const char *library) {
  void *handle = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
  char *(*definition)(struct in_addr) = NULL;
  if (handle != NULL) *(void **)&definition = dlsym(handle, "inet_ntoa");
  const struct in_addr address = {.s_addr = htonl(0x0a010203)};
  if (definition == NULL || definition(address) != inet_ntoa(address)) {
    printf("%s does not define the inet_ntoa of this program\n", library);
    wrong = 1;
  }
}

int main(int count, char **arguments) {
  static const char *const texts[] = {"0.0.0.0", "1.2.3.4", "10.0.0.1", "127.0.0.1", "99.100.9.10",
                                      "192.168.200.255", "255.255.255.255"};
  for (size_t i = 0; i < sizeof texts / sizeof texts[0]; i++) expect(texts[i]);
  if (count != 2) return 2;
  expect_definition_of(arguments[1]);
  return wrong;
}
SOURCE

"$@" -std=gnu11 -Wall -Wextra -Werror -Wno-pedantic -o "$work/linked" "$work/ask.c" "$library" "$work/libplatform.so" \
  -Wl,--no-as-needed "-Wl,-rpath,$(dirname "$library"):$work" -ldl
"$@" -std=gnu11 -Wall -Wextra -Werror -Wno-pedantic -o "$work/unlinked" "$work/ask.c" -ldl

status=0
"$work/linked" libip.so.1 || status=1
LD_PRELOAD="$library $work/libplatform.so" "$work/unlinked" libip.so.1 || status=1
# The program can tell the two definitions apart: without the library it is the C library's.
"$work/unlinked" libc.so.6 || status=1
exit $status
