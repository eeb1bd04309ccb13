#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: lint.sh CLANG_TIDY CPPCHECK BUILD_DIRECTORY SOURCE_DIRECTORY
# Are the library's sources clean for both tools, as .clang-tidy and .cppcheck-suppressions set them up?
set -u -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
tidy=$1
cppcheck=$2
build=$3
cd "$4" || exit 2
mapfile -t sources < <(find routing/ip -name '*.cc' | sort)
[ "${#sources[@]}" -gt 0 ] || { echo "no sources"; exit 2; }
status=0
"$tidy" --quiet -p "$build" "${sources[@]}" 2> /dev/null || status=1
"$cppcheck" --quiet --enable=warning,style,performance,portability --std=c++20 --language=c++ --error-exitcode=1 \
  --suppressions-list=.cppcheck-suppressions -I routing/ip -I routing/ip/include -I routing/ip/catalog \
  -I platform/include routing/ip || status=1
exit $status
