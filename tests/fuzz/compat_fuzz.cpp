// SPDX-License-Identifier: Apache-2.0
// Any bytes as received policy XML: filtered by the agent's schema, alone and as a document's body.
#include <libxml/parser.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "policy/policy.h"
#include "support/agent_schema.h"

namespace {

constexpr uint32_t kSetXml = 7;

void check_envelope(decltype(pol_fwd_policy_hdr_add)* add, const char* body, uint32_t size) {
  uint32_t length = 0;
  char* text = add(body, size, &length);
  if (text == nullptr || text[length] != '\0') abort();
  pol_free(text, kSetXml);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool loaded = load_agent_schema();
  if (!loaded) abort();
  const uint64_t frees = g_pol_mem_info[kSetXml].frees;
  const uint64_t allocs = g_pol_mem_info[kSetXml].allocs;
  const char* text = reinterpret_cast<const char*>(data);
  const auto length = static_cast<uint32_t>(size);
  uint32_t pruned_length = 0;
  char* pruned = pol_xml_fetch_compat_config("urn:zenodra:policy", text, length, &pruned_length);
  if (pruned != nullptr) {
    if (strlen(pruned) != pruned_length || pruned_length == 0) abort();
    xmlFree(pruned);
  }
  check_envelope(pol_fwd_policy_hdr_add, text, length);
  check_envelope(pol_show_fwd_policy_hdr_add, text, length);
  if (g_pol_mem_info[kSetXml].frees - frees != g_pol_mem_info[kSetXml].allocs - allocs) abort();
  return 0;
}
