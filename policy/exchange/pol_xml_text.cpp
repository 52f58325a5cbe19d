// SPDX-License-Identifier: Apache-2.0
#include "exchange/pol_xml_text_internal.h"

#include <algorithm>
#include <cstring>

#include "base/pol_memory.h"
#include "policy/pol_fwd_document.h"

namespace {

constexpr size_t kInitialRoom = 2048;

}  // namespace

uint32_t pol::xml_text_init(XmlText* text) {
  text->bytes = static_cast<char*>(pol_malloc(kInitialRoom + 1, MEM_PEER_XML));
  if (text->bytes == nullptr) return POL_ENOMEM;
  text->bytes[0] = '\0';
  text->length = 0;
  text->room = kInitialRoom;
  return POL_OK;
}

uint32_t pol::xml_text_append(XmlText* text, std::string_view more) {
  size_t length = text->length + more.size();
  if (length > text->room) {
    // A text alone fills most of the room: what follows it closes it and is short.
    size_t room = std::max(length + kInitialRoom, text->room * 2);
    auto* grown = static_cast<char*>(pol_realloc(text->bytes, room + 1));
    if (grown == nullptr) return POL_ENOMEM;
    text->bytes = grown;
    text->room = room;
  }
  memcpy(text->bytes + text->length, more.data(), more.size());
  text->length = length;
  text->bytes[length] = '\0';
  return POL_OK;
}

void pol::xml_text_free(XmlText* text) {
  pol_free(text->bytes, MEM_PEER_XML);
  *text = {};
}

// A buffer that was grown has no room left, so each later append grows it again: kept on purpose,
// for a caller to see in `room`.
uint32_t pol_fwd_policy_append(const char* text, int32_t size, char** buffer, uint32_t* room) {
  if (text == nullptr || size < 0 || buffer == nullptr || room == nullptr) return POL_OK;
  auto added = static_cast<uint32_t>(size);
  size_t length = *buffer != nullptr ? strlen(*buffer) : 0;
  if (*buffer == nullptr || *room < added) {
    auto* grown = static_cast<char*>(pol_realloc(*buffer, length + added + 1));
    if (grown == nullptr) return POL_ENOMEM;
    *buffer = grown;
    *room = 0;
  } else {
    *room -= added;
  }
  memcpy(*buffer + length, text, added);
  (*buffer)[length + added] = '\0';
  return POL_OK;
}
