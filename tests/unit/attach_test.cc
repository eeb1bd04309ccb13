// SPDX-License-Identifier: Apache-2.0
// Attaching the segment: status, handle, descriptor, root; and the texts that only a core dump reads.
#include <cstdio>
#include <cstring>

#include "unit/library_data.h"
#include "unit/library_test.h"

namespace unit {
namespace {

using AttachTest = LibraryTest;

std::string with_address(const char *format, const void *address) {
  char text[64];
  snprintf(text, sizeof text, format, address);
  return text;
}

TEST_F(AttachTest, SetsTheAddressesOfTheRoot) {
  EXPECT_EQ(ip_attach_shm(nullptr), 1u);
  EXPECT_EQ(calls(), Calls{R"(sm_open("/rsw/shm/ip", &ip_shseg, 0, 1, 17))"});
  auto *root = reinterpret_cast<char *>(database.root());
  EXPECT_EQ(ip_shseg, &platform().descriptor);
  EXPECT_EQ(ip_api_data, root);
  EXPECT_EQ(ip_api_mpib, root + 20);
  EXPECT_EQ(ip_api_contexts_queue, root);
  EXPECT_EQ(addr_ip_shseg, ip_shseg);
  EXPECT_EQ(addr_ip_api_data, ip_api_data);
  EXPECT_EQ(addr_ip_api_mpib, ip_api_mpib);
  EXPECT_EQ(ip_api_attached, 0u) << "attaching the segment alone is no init";
}

TEST_F(AttachTest, CopiesExactly176BytesOfTheDescriptor) {
  for (size_t i = 0; i < 84; i++) platform().descriptor.r0[i] = static_cast<uint8_t>(i + 1);
  platform().descriptor.bounded = 0x68676665;
  for (size_t i = 0; i < 80; i++) platform().descriptor.r108[i] = static_cast<uint8_t>(i + 105);
  uint8_t copy[180];
  memset(copy, 0xee, sizeof copy);
  EXPECT_EQ(ip_attach_shm(copy), 1u);
  EXPECT_EQ(memcmp(copy, &platform().descriptor, 176), 0);
  for (size_t i = 176; i < sizeof copy; i++) EXPECT_EQ(copy[i], 0xee) << i;
}

TEST_F(AttachTest, WithoutADestinationTheClientsCopyStays) {
  memset(ip_client.seg_desc, 0xee, sizeof ip_client.seg_desc);
  EXPECT_EQ(ip_attach_shm(nullptr), 1u);
  for (const auto byte : ip_client.seg_desc) ASSERT_EQ(byte, 0xee);
}

TEST_F(AttachTest, LeavesItsAddressesAsTextForACoreDump) {
  ip_attach_shm(nullptr);
  EXPECT_TRUE(library_data_holds_text(with_address(" ip_shseg: %p \n", ip_shseg)));
  EXPECT_TRUE(library_data_holds_text(with_address(" api_data: %p \n", ip_api_data)));
  EXPECT_TRUE(library_data_holds_text(with_address(" ip_mpib: %p \n", ip_api_mpib)));
}

TEST_F(AttachTest, FailsWhenTheLowHalfOfTheStatusIsNotZero) {
  platform().scripts.answer("sm_open", 0x10000001);
  EXPECT_EQ(ip_attach_shm(nullptr), 0u);
  EXPECT_EQ(ip_shseg, nullptr);
  EXPECT_EQ(ip_api_data, nullptr);
  EXPECT_EQ(calls().size(), 1u) << "silent without its debug flag";
}

TEST_F(AttachTest, LooksAtTheLowHalfOfTheStatusOnly) {
  platform().scripts.answer("sm_open", 0xffff0000);
  EXPECT_EQ(ip_attach_shm(nullptr), 1u);
  EXPECT_EQ(ip_api_data, database.root());
}

TEST_F(AttachTest, FailsWhenNoHandleCame) {
  platform().segment = nullptr;
  uint8_t copy[176];
  memset(copy, 0xee, sizeof copy);
  dbg_ip_api_misc = 1;
  EXPECT_EQ(ip_attach_shm(copy), 0u);
  EXPECT_EQ(calls().size(), 1u) << "no debug line here";
  EXPECT_EQ(copy[0], 0xee);
  EXPECT_EQ(ip_api_data, nullptr);
  EXPECT_EQ(addr_ip_shseg, nullptr);
  EXPECT_TRUE(library_data_holds_text("Unable to open IP_NAME"));
}

TEST_F(AttachTest, WithItsDebugFlagSaysWhyItFailed) {
  dbg_ip_api_misc = 1;
  platform().scripts.fail("sm_open");
  platform().scripts.answer("sdwrap_chk_int", 1);
  EXPECT_EQ(ip_attach_shm(nullptr), 0u);
  EXPECT_EQ(
      calls(),
      (Calls{R"(sm_open("/rsw/shm/ip", &ip_shseg, 0, 1, 17))", R"(syslog_perror("IP-API: ip_attach_shm: shm_open"))",
             "sdwrap_chk_int(150, 0, 0, 1)", "sdwrap_chk_int(150, 0, 0, 1)",
             "buginf_func(1, \"fake-module\", \"[77] fake\", 0, \"IP: Couldn't get shared memory\n\")"}));
}

TEST_F(AttachTest, OtherDebugFlagsDoNotMakeItSpeak) {
  dbg_api_init = 1;
  platform().scripts.fail("sm_open");
  EXPECT_EQ(ip_attach_shm(nullptr), 0u);
  EXPECT_EQ(calls().size(), 1u);
}

TEST_F(AttachTest, AStaleHandleIsOverwritten) {
  int stale = 0;
  ip_shseg = &stale;
  EXPECT_EQ(ip_attach_shm(nullptr), 1u);
  EXPECT_EQ(ip_shseg, &platform().descriptor);
}

}  // namespace
}  // namespace unit
