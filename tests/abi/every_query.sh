#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# usage: every_query.sh EXPORTS HEADER
# Does HEADER, which asks every question that follows words of the shared segments, ask each question of EXPORTS? Those
# exempt here look at their arguments alone, or at the process.
set -eu -o pipefail
export LC_ALL=C.UTF-8  # ranges of letters and what tools say are not those of a user's language
exports=$1
header=$2
questions='(ip_(get|is|check|find|allow|calc|urib|update)_.*|ip_enabled|ip_forward_enabled|ip_print_addr_summary|is_fwd_enabled_spl_iod)'
exempt='ip_get_(api_error_info|broadcast_address|client_pointer|mac_multicast|max_msg_size)'
# Asked of the IP process, or of the transport.
exempt+='|ip_get_(interface_stats|urib_q)'
exempt+='|ip_is_(addr_broadcast|addr_in_prefix|addr_multicast|mask_contiguous|syslog_svr_address)'
# Asked about a packet, or a name.
exempt+='|ip_get_(ttl_from_packet|proto_name|proto_num)|ip_is_mpls_oam_echo_request_packet'

status=0
asked=0
while read -r name; do
  if grep -qE "\b$name\b" "$header"; then
    asked=$((asked + 1))
  else
    echo "$name is not asked in $header"
    status=1
  fi
done < <(sed -n 's/^function //p' "$exports" | grep -xE "$questions" | grep -vxE "$exempt")
[ "$asked" -gt 60 ] || { echo "only $asked questions of $exports are asked in $header"; status=1; }
exit $status
