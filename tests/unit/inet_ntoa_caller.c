/* SPDX-License-Identifier: Apache-2.0 */
/* A C program as there are many: it knows the C library's inet_ntoa, takes its declaration, and links libip. */
#include <arpa/inet.h>

const char *text_of_address_bytes(const unsigned char bytes[4]);

const char *text_of_address_bytes(const unsigned char bytes[4]) {
  struct in_addr address;
  __builtin_memcpy(&address, bytes, 4);
  return inet_ntoa(address);
}
