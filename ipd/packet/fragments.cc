// SPDX-License-Identifier: Apache-2.0
// The packet may be a fragment itself, as one that is passed on is: offsets count from its own, and its last piece says
// that more follow if it does.
#include "ipd/packet/fragments.h"

#include <algorithm>

namespace ipd::packet {
namespace {

constexpr uint8_t end_of_options = 0, no_operation = 1, copied_flag = 0x80;
constexpr size_t unit = 8;  // of offsets

// The header as it is on all pieces but the first: with those options alone whose copied flag is set. Empty: there are
// options that end nowhere.
std::vector<std::byte> header_of_later_ones(ipv4::Bytes header) {
  std::vector<std::byte> later(header.begin(), header.begin() + ipv4::shortest_header);
  for (size_t at = ipv4::options_at; at < header.size();) {
    const uint8_t type = ipv4::read8(header, at);
    if (type == end_of_options) break;
    if (type == no_operation) {
      ++at;
      continue;
    }
    if (header.size() - at < 2) return {};
    const size_t length = ipv4::read8(header, at + 1);
    if (length < 2 || length > header.size() - at) return {};
    const auto option = header.subspan(at, length);
    if ((type & copied_flag) != 0) later.insert(later.end(), option.begin(), option.end());
    at += length;
  }
  later.resize((later.size() + 3) / 4 * 4, std::byte{end_of_options});
  ipv4::set_version_and_header_length(later, later.size());
  return later;
}

}  // namespace

Fragments::Fragments(ipv4::Bytes packet, size_t mtu) : packet_(packet), mtu_(mtu) {
  const size_t header = ipv4::header_length(packet);
  if (ipv4::may_not_be_fragmented(packet) || mtu < header + unit) {
    outcome_ = Outcome::too_big;
    return;
  }
  later_header_ = header_of_later_ones(packet.first(header));
  const size_t end = ipv4::fragment_offset(packet) + packet.size() - header;
  if (later_header_.empty() || end > ipv4::longest_packet - ipv4::shortest_header) outcome_ = Outcome::bad_packet;
}

ipv4::WritableBytes Fragments::next() {
  const size_t whole_header = ipv4::header_length(packet_);
  const size_t data = packet_.size() - whole_header;
  if (outcome_ != Outcome::done || taken_ == data) return {};
  const ipv4::Bytes header = taken_ == 0 ? packet_.first(whole_header) : ipv4::Bytes(later_header_);
  size_t length = data - taken_;
  if (header.size() + length > mtu_) length = (mtu_ - header.size()) / unit * unit;

  const ipv4::Bytes piece = packet_.subspan(whole_header + taken_, length);
  fragment_.assign(header.begin(), header.end());
  fragment_.insert(fragment_.end(), piece.begin(), piece.end());
  const bool is_last = taken_ + length == data && !ipv4::has_more_fragments(packet_);
  const size_t offset = ipv4::fragment_offset(packet_) + taken_;
  // The flag that nobody has given a meaning stays as it is.
  const auto kept = static_cast<uint16_t>(ipv4::read16(packet_, ipv4::fragment_at) & 0x8000u);
  ipv4::write16(fragment_, ipv4::fragment_at,
                static_cast<uint16_t>(kept | (is_last ? 0u : ipv4::more_fragments) | offset / unit));
  ipv4::write16(fragment_, ipv4::total_length_at, static_cast<uint16_t>(fragment_.size()));
  ipv4::write_checksum(fragment_);
  taken_ += length;
  return fragment_;
}

}  // namespace ipd::packet
