#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# shellcheck disable=SC1091,SC2016,SC2154,SC2317
# packages_test.sh SOURCE_DIRECTORY CASE: one behaviour of scripts/packages.sh or ./check, on a machine that is made of
# stubs: dpkg, apt-get, sudo and id write down how they were called, and answer what the case says.
set -u
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
source_directory=$1 case=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/bin"
for tool in bash sh cat chmod cp dirname env grep ln mkdir mktemp nproc rm sed sort tail; do
  ln -s "$(command -v "$tool")" "$work/bin/$tool"
done

stub() {  # stub NAME: its text comes from standard input
  { printf '#!/bin/bash\n'; cat; } >"$work/bin/$1"
  chmod 755 "$work/bin/$1"
}
stub id <<<'echo "${STUB_UID:-1000}"'
stub dpkg <<'EOF'
case "$1" in
  --print-architecture) echo "${STUB_ARCHITECTURE:-amd64}" ;;
  --print-foreign-architectures) echo "${STUB_FOREIGN:-}" ;;
  *) echo "dpkg $*" >>"$STUB_CALLS" ;;
esac
EOF
# What is installed: words of NAME:ARCHITECTURE.
stub dpkg-query <<'EOF'
for last; do :; done
found=1
for each in ${STUB_INSTALLED:-}; do
  if [ "$each" = "$last" ] || [ "${each%:*}" = "$last" ]; then echo "${each#*:} installed"; found=0; fi
done
exit $found
EOF
stub apt-get <<'EOF'
case " $* " in
  *" -s "*) printf '%s\n' "${STUB_PLAN-Inst libmnl-dev:i386 (1.0.4-3 Debian:12.15 [i386])}"; exit "${STUB_PLAN_STATUS:-0}" ;;
esac
echo "apt-get $*" >>"$STUB_CALLS"
case "$1" in
  update) exit "${STUB_UPDATE_STATUS:-0}" ;;
  install) exit "${STUB_INSTALL_STATUS:-0}" ;;
esac
EOF
# The script that installs is not run: it is about the machine's real services. Its arguments count.
stub sudo <<'EOF'
if [ "$1" = sh ]; then shift 4; exec apt-get install "$@"; fi
exec "$@"
EOF

export PATH=$work/bin STUB_CALLS=$work/calls
: >"$STUB_CALLS"
# shellcheck source=scripts/packages.sh
. "$source_directory/scripts/packages.sh"

fail() {
  printf 'FAILED: %s\ncalls:\n' "$1"
  cat "$STUB_CALLS"
  printf 'said:\n'
  cat "$work/said"
  exit 1
}
install() { install_packages_i386 >"$work/said" 2>&1 || fail "its result is $?"; }
calls() { [ "$(cat "$STUB_CALLS")" = "$1" ] || fail "expected these calls:
$1"; }
says() { grep -q -- "$1" "$work/said" || fail "it does not say: $1"; }

added="dpkg --add-architecture i386
apt-get update -q"
installed="$added
apt-get install --no-remove libmnl-dev:i386"

a_package_of_both_architectures_is_installed() {
  : >"$work/said"
  STUB_INSTALLED="libmnl-dev:amd64 libmnl-dev:i386" package_is_installed libmnl-dev || fail "libmnl-dev"
  STUB_INSTALLED="libmnl-dev:amd64 libmnl-dev:i386" package_is_installed libmnl-dev:i386 || fail "libmnl-dev:i386"
  STUB_INSTALLED="libcli11-dev:all" package_is_installed libcli11-dev || fail "libcli11-dev"
}
a_package_of_another_architecture_alone_is_missing() {
  : >"$work/said"
  STUB_INSTALLED="libmnl-dev:i386" package_is_installed libmnl-dev && fail "libmnl-dev"
  STUB_INSTALLED="libmnl-dev:amd64" package_is_installed libmnl-dev:i386 && fail "libmnl-dev:i386"
  return 0
}
what_is_installed_is_left_alone() {
  export STUB_INSTALLED="libmnl-dev:amd64 libmnl-dev:i386"
  install
  calls ""
}
another_machine_is_left_alone() {
  export STUB_ARCHITECTURE=arm64
  install
  calls ""
}
without_root_there_is_a_note() {
  rm "$work/bin/sudo"
  install
  calls ""
  says "note: .*libmnl-dev:i386"
}
the_architecture_is_added_for_it() {
  install
  calls "$installed"
}
an_index_that_does_not_refresh_is_no_obstacle() {
  export STUB_UPDATE_STATUS=100
  install
  calls "$installed"
}
an_architecture_that_was_there_is_not_added() {
  export STUB_FOREIGN=i386
  install
  calls "${installed#*$'\n'}"
}
nothing_is_upgraded_for_it() {
  export STUB_PLAN="Inst libc6 [2.36-9] (2.36-10 Debian:12.15 [amd64])
Inst libmnl-dev:i386 (1.0.4-3 Debian:12.15 [i386])"
  install
  calls "$added
dpkg --remove-architecture i386"
  says "note: .*upgraded"
}
nothing_is_removed_for_it() {
  export STUB_PLAN="Remv libc6-i386 [2.36-9]"
  install
  calls "$added
dpkg --remove-architecture i386"
  says "note: .*removed"
}
a_package_that_no_index_has_is_a_note() {
  export STUB_PLAN_STATUS=100
  install
  calls "$added
dpkg --remove-architecture i386"
  says "note: "
}
an_installation_that_fails_is_a_note() {
  export STUB_INSTALL_STATUS=100
  install
  calls "$installed
dpkg --remove-architecture i386"
  says "note: could not install: libmnl-dev:i386"
}
an_architecture_that_was_there_stays() {
  export STUB_INSTALL_STATUS=100 STUB_FOREIGN=i386
  install
  calls "${installed#*$'\n'}"
}

# check ARGUMENT...: ./check in a tree of its own, with builds and tests that do nothing.
check() {
  local name
  export STUB_INSTALLED="" STUB_CMAKE_SAYS=${STUB_CMAKE_SAYS:-}
  for name in $packages_build $packages_run $packages_test; do STUB_INSTALLED+=" $name:amd64"; done
  mkdir -p "$work/tree/fuzz" "$work/tree/packaging" "$work/tree/build/native/bin"
  ln -s "$source_directory/scripts" "$work/tree/scripts"
  cp "$source_directory/check" "$work/tree/check"
  stub cmake <<<'[ "$1 $2" = "--preset m32" ] && echo "$STUB_CMAKE_SAYS"; echo "cmake $*" >>"$STUB_CALLS"'
  stub ctest <<<'echo "100% tests passed, 0 tests failed out of 1"'
  stub lintian <<<''
  for name in build/native/bin/soak fuzz/replay packaging/build_packages packaging/try_packages; do
    printf '#!/bin/sh\n' >"$work/tree/$name"
    chmod 755 "$work/tree/$name"
  done
  "$work/tree/check" "$@" >"$work/said" 2>&1 || fail "./check $*: $?"
}
a_quick_check_does_not_ask_for_32_bits() {
  check quick
  grep -qE 'apt-get|add-architecture|m32' "$STUB_CALLS" && fail "nothing about 32 bits was to be done"
  grep -q '^cmake --preset native$' "$STUB_CALLS" || fail "the native preset is built"
}
a_check_that_may_not_install_does_not() {
  check --no-install
  grep -qE 'apt-get|add-architecture' "$STUB_CALLS" && fail "nothing was to be installed"
  grep -q '^cmake --preset m32$' "$STUB_CALLS" || fail "the m32 preset is built"
}
a_whole_check_goes_on_when_it_cannot_be_installed() {
  export STUB_INSTALL_STATUS=100
  STUB_CMAKE_SAYS="-- 32-bit ipd: not built, no libmnl of that width is installed" check
  grep -q 'apt-get install .*libmnl-dev:i386' "$STUB_CALLS" || fail "it was to be tried"
  says "  note: 32-bit ipd: not built, no libmnl of that width is installed"
  says "check: all green"
}
a_check_with_a_32_bit_ipd_has_no_note() {
  check
  says "check: all green"
  grep -q "note:" "$work/said" && fail "there is nothing to note"
  return 0
}

"$case"
