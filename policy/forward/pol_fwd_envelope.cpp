// SPDX-License-Identifier: Apache-2.0
// The envelopes in which the agent takes the forwarding manager's document.
#include <libxml/parser.h>

#include <cstring>
#include <initializer_list>
#include <string_view>

#include "base/pol_memory.h"
#include "policy/pol_fwd_document.h"
#include "policy/pol_xml_compat.h"

namespace {

using std::string_view;

constexpr char kPolicyNamespace[] = "urn:zenodra:policy";
constexpr string_view kConfigOpen = "<config xmlns=\"urn:norvik:config:1.0\">";
constexpr string_view kConfigClose = "</config>";

char* made_envelope(std::initializer_list<string_view> pieces, uint32_t* length) {
  size_t whole = 0;
  for (string_view piece : pieces) whole += piece.size();
  if (whole >= UINT32_MAX) return nullptr;
  auto* made = static_cast<char*>(pol_malloc(whole + 1, pol::MEM_SET_XML));
  if (made == nullptr) return nullptr;
  char* at = made;
  for (string_view piece : pieces) {
    memcpy(at, piece.data(), piece.size());
    at += piece.size();
  }
  *at = '\0';
  *length = static_cast<uint32_t>(whole);
  return made;
}

// The filter's text belongs to libxml2's deallocator; hosts free every envelope the same way.
char* taken_over(char* filtered, uint32_t filtered_length, uint32_t* length) {
  char* made = made_envelope({{filtered, filtered_length}}, length);
  xmlFree(filtered);
  return made;
}

char* enveloped(string_view open, string_view close, const char* body, uint32_t body_length,
                uint32_t* length) {
  if (length == nullptr) return nullptr;
  *length = 0;
  if (body == nullptr) return made_envelope({kConfigOpen, open, close, kConfigClose}, length);
  uint32_t whole = 0;
  char* made = made_envelope({kConfigOpen, open, {body, body_length}, close, kConfigClose}, &whole);
  if (made == nullptr) return nullptr;
  uint32_t filtered_length = 0;
  char* filtered = pol_xml_fetch_compat_config(
      kPolicyNamespace, made + kConfigOpen.size(),
      static_cast<uint32_t>(whole - kConfigOpen.size() - kConfigClose.size()), &filtered_length);
  if (filtered != nullptr) {
    pol_free(made, pol::MEM_SET_XML);
    return taken_over(filtered, filtered_length, length);
  }
  *length = whole;
  return made;
}

}  // namespace

char* pol_fwd_policy_hdr_add(const char* body, uint32_t body_length, uint32_t* length) {
  return enveloped("<policy-from-pellux xmlns=\"urn:zenodra:policy\">", "</policy-from-pellux>",
                   body, body_length, length);
}

char* pol_show_fwd_policy_hdr_add(const char* body, uint32_t body_length, uint32_t* length) {
  return enveloped("<policy xmlns=\"urn:zenodra:policy\"><from-pellux>", "</from-pellux></policy>",
                   body, body_length, length);
}
