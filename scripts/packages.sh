# SPDX-License-Identifier: Apache-2.0
# shellcheck shell=bash
# Sourced by ./demo and ./check: installs Debian packages by name, only those that are missing.

packages_build="g++ cmake ninja-build pkg-config libmnl-dev libcli11-dev nlohmann-json3-dev libfmt-dev googletest"
packages_run="iproute2 util-linux jq"
packages_test="g++-multilib ccache clang clang-tidy cppcheck libclang-rt-14-dev binutils python3 python3-jsonschema bash-completion mandoc procps file"
packages_bench="libbenchmark-dev liburcu-dev libnl-3-dev libnl-route-3-dev"
export packages_build packages_run packages_test packages_bench

package_is_installed() {
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# install_packages NAME...: 0 when all are there afterwards. An index that does not refresh is only a failure when a
# package that is needed cannot be installed without it.
install_packages() {
  local missing=() name as_root=() output
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
  if ! output=$("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}" 2>&1); then
    printf '%s\n' "$output" | tail -n 15 >&2
    echo "could not install: ${missing[*]}" >&2
    return 1
  fi
}
