// SPDX-License-Identifier: Apache-2.0
// Any bytes as a text policy file: checked, and read into a context that must go without a rest.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "policy/policy.h"

namespace {

void look_at_finding(const t_pol_test_finding* finding, void* last_line) {
  uint32_t& last = *static_cast<uint32_t*>(last_line);
  // In order, with a place and a cause.
  if (finding->line < last || finding->column == 0 || strlen(finding->what) == 0) abort();
  last = finding->line;
}

void take_site_policy(t_pol_test_tokens tokens, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    if (memchr(tokens[i], 0, sizeof tokens[i]) == nullptr) abort();
  }
}

uint64_t outstanding() {
  uint64_t sum = 0;
  for (const t_pol_mem_info& row : g_pol_mem_info) sum += row.allocs - row.frees;
  return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int fd = memfd_create("policy", 0);
  if (fd < 0) abort();
  char path[64];
  snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  if (write(fd, data, size) != static_cast<ssize_t>(size)) abort();

  uint32_t last_line = 0;
  if (pol_test_check_file(path, look_at_finding, &last_line) < 0) abort();

  const uint64_t before = outstanding();
  const t_pol_callbacks callbacks = {};
  if (pol_init(&callbacks) == nullptr) abort();
  // Read twice: what a line makes, deletes and makes again.
  for (int i = 0; i < 2; ++i) {
    if (pol_test_parse_file(path, take_site_policy) != 0) abort();
  }
  pol_destroy();
  if (outstanding() != before) abort();
  close(fd);
  return 0;
}
