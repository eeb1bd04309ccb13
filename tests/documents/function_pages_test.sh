#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: function_pages_test.sh SOURCE_DIRECTORY PYTHON CASE
# The manual pages that are made from the headers: complete, well-formed, and refused where a header is silent.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
source=$1
python=$2
case=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$source/routing/ip/include" "$work/include"
pages=$work/man3

make_pages() {
  "$python" -B "$source/packaging/man/function_pages.py" "$work/include" \
    "$source/routing/ip/catalog/ip_messages.h" "$pages"
}

fail() {
  echo "$*"
  exit 1
}

# declare HEADER TEXT: declares something more in a copy of a header, in a section of its own.
declare_in() {
  printf '// ---------- a test\n\n%s\n' "$2" > "$work/more"
  sed -i "/^#pragma GCC visibility push/r $work/more" "$work/include/$1"
}

# refused HEADER PATTERN REASON: no pages are made, and the reason begins with the line that matches.
refused() {
  local line output
  line=$(grep -n -m1 -- "$2" "$work/include/$1" | cut -d: -f1)
  output=$(make_pages 2>&1) && fail "pages were made"
  case $output in
    "$1:$line: "*"$3"*) ;;
    *) fail "expected $1:$line: ... $3, got: $output" ;;
  esac
}

case $case in
  every_export_has_a_page)
    make_pages
    names=$(awk '!/^#/ { print $2 }' "$source/tests/abi/exports.txt")
    [ "$(wc -w <<< "$names")" -gt 300 ] || fail "the list of exports is not understood"
    for name in $names; do
      page=$(find "$pages" -name "$name.3*")
      [ -n "$page" ] || fail "no page for $name"
      target=$(sed -n '1s/^\.so man3\///p' "$page")
      [ -z "$target" ] || page=$pages/$target
      [ -f "$page" ] || fail "$name: there is no $target"
      case $name in
        syslog_msg_IP_* | msg_error_IP_*) grep -q "^\.It Sy ${name#*_IP_} " "$page" ;;
        *) grep -Eq "^\.(Nm|It Vt)(.*[ *])?$name\b" "$page" ;;
      esac || fail "$(basename "$page") does not name $name"
    done
    ;;
  the_pages_are_clean)
    make_pages
    mapfile -t whole < <(grep -L '^\.so' "$pages"/*)
    [ "${#whole[@]}" -gt 100 ] || fail "there are only ${#whole[@]} pages"
    mandoc -Tlint -W warning "${whole[@]}"
    printf '.Dd November 22, 2026\n.Dt BROKEN 3\n.Os\n.Sh NAME\n.Zz\n' > "$work/broken.3"
    ! mandoc -Tlint -W warning "$work/broken.3" > "$work/log" || fail "mandoc finds nothing wrong with anything"
    ;;
  a_page_says_what_its_block_says)
    declare_in ip_api.h '// Paints an interface.
//   colour  0 .. 255
// Threads: any. Owns: see the top; the paint is the caller'"'"'s. Results: 1: painted. 0: no paint (colour 0:
//   logged).
uint32_t ip_paint(uint32_t iod, uint32_t colour);

// The same in stripes. Debug lines: none.
uint32_t ip_paint_stripes(uint32_t iod, uint32_t colour);'
    make_pages
    [ "$(cat "$pages/ip_paint_stripes.3")" = ".so man3/ip_paint.3" ] || fail "the second function has a page of its own"
    mandoc -Tascii -O width=1000 "$pages/ip_paint.3" | col -b | tr -s ' \t\n' ' ' > "$work/text"
    for said in "ip_paint, ip_paint_stripes - paints an interface" "ip_paint(uint32_t iod, uint32_t colour);" \
      "#include <ip_api.h>" "pkg-config --cflags --libs libip" "The same in stripes." "colour 0 .. 255" \
      "iod an interface, as the interface manager numbers them" "RETURN VALUES 1: painted. 0: no paint (colour 0: logged)." \
      "Threads Any." "Owns See libip(3); the paint is the caller's." "SEE ALSO"; do
      grep -qF -- "$said" "$work/text" || fail "not in the page: $said; it is: $(cat "$work/text")"
    done
    ;;
  a_block_without_a_result_is_refused)
    declare_in ip_api.h '// Paints an interface. Threads: any.
uint32_t ip_paint(uint32_t iod);'
    refused ip_api.h '^// Paints' 'ip_paint: no result'
    ;;
  a_block_without_an_argument_is_refused)
    declare_in ip_packet.h '// Paints a packet. Threads: any. Results: 1.
uint32_t ip_paint(struct mbuf *packet, uint32_t colour);'
    refused ip_packet.h '^// Paints' 'nothing about its argument colour'
    ;;
  a_function_without_a_block_is_refused)
    declare_in ip_packet_util.h 'uint32_t ip_paint(uint32_t iod);'
    refused ip_packet_util.h 'ip_paint' 'ip_paint has no contract block'
    ;;
  a_block_without_a_sentence_is_refused)
    declare_in ip_api.h '//   iod  an interface
// Threads: any. Results: 1.
uint32_t ip_paint(uint32_t iod);'
    refused ip_api.h '^//   iod  an interface$' 'does not say what the function does'
    ;;
  pages_of_names_that_are_gone_are_gone)
    mkdir "$pages"
    touch "$pages/ip_paint.3"
    make_pages
    [ -f "$pages/ip_register.3" ] || fail "there is no new page"
    [ ! -e "$pages/ip_paint.3" ] || fail "the old page is still there"
    ;;
  *) fail "no such case: $case" ;;
esac
