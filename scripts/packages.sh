# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by ./demo and ./check: installs Debian packages by name, only those that are missing.

packages_build="g++ cmake ninja-build pkg-config libmnl-dev nettle-dev libcli11-dev nlohmann-json3-dev libfmt-dev googletest"
packages_run="iproute2 util-linux jq"
packages_test="g++-multilib ccache clang clang-tidy cppcheck libclang-rt-14-dev binutils python3 python3-jsonschema bash-completion mandoc procps file bird2 keepalived tshark"
packages_bench="libbenchmark-dev liburcu-dev libnl-3-dev libnl-route-3-dev libdpdk-dev frr libdbus-1-dev dbus-daemon"
# package:service, for those that bring a service along. They are peers for tests, which run them by themselves: the
# service is to start neither now nor with the machine.
packages_services="bird2:bird keepalived:keepalived frr:frr"
export packages_build packages_run packages_test packages_bench packages_services

package_is_installed() {
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
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
