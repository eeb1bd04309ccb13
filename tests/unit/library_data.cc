// SPDX-License-Identifier: Apache-2.0
#include "unit/library_data.h"

#include <fcntl.h>
#include <link.h>
#include <unistd.h>

#include <cstring>
#include <vector>

namespace unit {
namespace {

struct Search {
  std::string_view bytes;
  int memory;
  bool found;
};

int search_library(dl_phdr_info *info, size_t, void *argument) {
  auto *search = static_cast<Search *>(argument);
  if (std::strstr(info->dlpi_name, "libip.so") == nullptr) return 0;
  for (int i = 0; i < info->dlpi_phnum; i++) {
    const auto &segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) == 0) continue;
    std::vector<char> copy(segment.p_memsz);
    const auto at = static_cast<off64_t>(info->dlpi_addr + segment.p_vaddr);
    const ssize_t size = pread64(search->memory, copy.data(), copy.size(), at);
    if (size <= 0) continue;
    const std::string_view data(copy.data(), static_cast<size_t>(size));
    if (data.find(search->bytes) != std::string_view::npos) search->found = true;
  }
  return 0;
}

}  // namespace

// Through /proc/self/mem: the gaps between variables are poisoned under the address sanitizer.
bool library_data_holds(std::string_view bytes) {
  Search search{bytes, open("/proc/self/mem", O_RDONLY | O_CLOEXEC), false};
  dl_iterate_phdr(search_library, &search);
  close(search.memory);
  return search.found;
}

}  // namespace unit
