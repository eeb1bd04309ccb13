# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by ./demo and ./check: installs Debian packages by name, only those that are missing.

packages_build="g++ cmake ninja-build pkg-config libmnl-dev nettle-dev libcli11-dev nlohmann-json3-dev libfmt-dev googletest"
packages_run="iproute2 util-linux jq"
packages_test="g++-multilib ccache clang clang-tidy cppcheck libclang-rt-14-dev binutils python3 python3-jsonschema bash-completion mandoc doxygen procps file bird2 frr keepalived tshark"
# To look at libraries and packages with.
packages_test="$packages_test abigail-tools dpkg-dev lintian debootstrap systemtap-sdt-dev bpftrace"
packages_bench="libbenchmark-dev liburcu-dev libnl-3-dev libnl-route-3-dev libdpdk-dev libdbus-1-dev dbus-daemon gnuplot-nox"
# For the 32-bit ipd. It is nice to have: see install_packages_i386.
packages_i386="libmnl-dev:i386"
# package:service, for those that bring a service along. They are peers for tests, which run them by themselves: the
# service is to start neither now nor with the machine.
packages_services="bird2:bird keepalived:keepalived frr:frr"
export packages_build packages_run packages_test packages_bench packages_i386 packages_services

# package_is_installed NAME[:ARCHITECTURE]: without one, for this machine's own architecture, whatever others have it too.
package_is_installed() {
  local of='[^ ]+'
  [[ $1 = *:* ]] || of="($(dpkg --print-architecture)|all)"
  dpkg-query -W -f='${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null | grep -Eqx "$of installed"
}

# install_quietly NAME...: apt-get install as root, without starting a service that comes along. A policy that the
# machine has already is left alone.
# shellcheck disable=SC2016
install_quietly='
  policy=/usr/sbin/policy-rc.d
  if [ ! -e "$policy" ]; then
    trap "rm -f $policy" EXIT
    trap "exit 130" INT TERM HUP
    printf "#!/bin/sh\nexit 101\n" >"$policy" && chmod 755 "$policy" || exit 1
  fi
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "$@"'

# disable_services NAME...: those of the packages that were installed just now.
# shellcheck disable=SC2016
disable_services='
  for service in "$@"; do
    if command -v systemctl >/dev/null; then
      systemctl disable --quiet "$service.service"
    elif command -v update-rc.d >/dev/null; then
      update-rc.d "$service" disable
    fi
  done'

# install_packages NAME...: 0 when all are there afterwards. An index that does not refresh is only a failure when a
# package that is needed cannot be installed without it.
install_packages() {
  local missing=() services=() name each as_root=() output
  for name in "$@"; do package_is_installed "$name" || missing+=("$name"); done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null 2>&1; then
      echo "missing packages: ${missing[*]}; run as root, or install them and run again" >&2
      return 1
    fi
    as_root=(sudo)
  fi
  echo "installing: ${missing[*]}"
  "${as_root[@]}" apt-get update -q >/dev/null 2>&1 ||
    echo "note: a package index did not refresh; going on with what is known" >&2
  if ! output=$("${as_root[@]}" sh -c "$install_quietly" install_quietly "${missing[@]}" 2>&1); then
    printf '%s\n' "$output" | tail -n 15 >&2
    echo "could not install: ${missing[*]}" >&2
    return 1
  fi
  for each in $packages_services; do
    for name in "${missing[@]}"; do [ "$name" != "${each%:*}" ] || services+=("${each#*:}"); done
  done
  [ ${#services[@]} -eq 0 ] ||
    "${as_root[@]}" sh -c "$disable_services" disable_services "${services[@]}" >/dev/null 2>&1 ||
    echo "note: could not disable: ${services[*]}" >&2
}

# install_packages_i386: packages_i386 on a 64-bit x86 machine, or a note. Its result is always 0, because everything but
# the 32-bit ipd and its tests goes without them. What is installed is neither removed nor upgraded for their sake, and an
# architecture that was added for nothing is taken away again.
install_packages_i386() {
  local missing=() name as_root=() added=no plan
  [ "$(dpkg --print-architecture)" = amd64 ] || return 0
  for name in $packages_i386; do package_is_installed "$name" || missing+=("$name"); done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null 2>&1; then
      echo "note: not installed, because this is not root: ${missing[*]}" >&2
      return 0
    fi
    as_root=(sudo)
  fi
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    if ! "${as_root[@]}" dpkg --add-architecture i386; then
      echo "note: not installed, because there can be no i386 packages here: ${missing[*]}" >&2
      return 0
    fi
    added=yes
  fi
  echo "installing: ${missing[*]}"
  "${as_root[@]}" apt-get update -q >/dev/null 2>&1 # some of the new architecture's indexes may be enough
  # A line of an upgrade names the version that goes: "Inst libc6 [2.36-9] (2.36-10 ...".
  if ! plan=$(apt-get install -s --no-install-recommends "${missing[@]}" 2>/dev/null); then
    echo "note: there is no way to install ${missing[*]}" >&2
  elif grep -Eq '^(Remv |Inst [^ ]+ \[[^]]+\] \()' <<<"$plan"; then
    echo "note: not installed, because other packages would be upgraded or removed: ${missing[*]}" >&2
  elif ! "${as_root[@]}" sh -c "$install_quietly" install_quietly --no-remove "${missing[@]}" >/dev/null 2>&1; then
    echo "note: could not install: ${missing[*]}" >&2
  else
    return 0
  fi
  [ "$added" = no ] || "${as_root[@]}" dpkg --remove-architecture i386 2>/dev/null || true
}
