// SPDX-License-Identifier: Apache-2.0
// This process's attachment to the interface table: one mapping, counted, whoever asks for it.
//
// Queries look at one word, the table's address, and answer "nothing" while it is null. The last close clears the word
// before the mapping goes; a query that has taken the address just before reads zeros then, since the window stays
// readable.
#include "im/attachment.h"

#include <memory>
#include <mutex>
#include <string>

#include "im.h"
#include "im/im_writer.h"
#include "log/log_writer.h"
#include "no_memory.h"
#include "sm/segment_map.h"

namespace rsw {
namespace im {

uint32_t table_word = 0;

namespace {

std::mutex mutex;  // of all below, and of stores to table_word
std::shared_ptr<SegmentMap> attached;
std::shared_ptr<SegmentMap> looked_at;  // for im_header without an attachment
uint32_t references = 0;

}  // namespace
}  // namespace im

const SegmentHeader *im_header() {
  const std::lock_guard guard(im::mutex);
  if (im::attached != nullptr) return im::attached->header();
  std::string reason;
  im::looked_at = SegmentMap::attach(segment_im, &reason);
  return im::looked_at != nullptr ? im::looked_at->header() : nullptr;
}

}  // namespace rsw

uint32_t im_ext_pub_lib_init(uint32_t component, uint32_t, uint32_t) {
  using namespace rsw;
  return unless_without_memory(1u, [component]() -> uint32_t {
    const std::lock_guard guard(im::mutex);
    if (im::references == 0) {
      std::string reason;
      im::attached = SegmentMap::attach(segment_im, &reason);
      if (im::attached == nullptr) {
        log_line(3, "interface table, component %u: %s", component, reason.c_str());
        return 1;
      }
      // Release: the mapping stands before its address does; partner: attached_table.
      publish_word(im::table_word, im::attached->layout().base + im::table_offset);
    }
    ++im::references;
    return 0;
  });
}

uint32_t im_ext_pub_lib_close(uint32_t, uint32_t) {
  using namespace rsw;
  const std::lock_guard guard(im::mutex);
  if (im::references == 0) return 1;
  if (--im::references == 0) {
    publish_word(im::table_word, 0);
    im::attached.reset();
  }
  return 0;
}
