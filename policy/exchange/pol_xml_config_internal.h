// SPDX-License-Identifier: Apache-2.0
//
// pol_xml_config_internal.h - the records of the XML cache.
#pragma once

#include <ctime>
#include <string_view>

#include "exchange/pol_xml_text_internal.h"
#include "kel/avl.h"
#include "lists/named_list.h"
#include "policy/pol_xml_config.h"

// When an object's text was last fetched from the agent, times of day; all 0 before the first time.
struct t_pol_fetch_time {
  time_t start;
  time_t end;
  int32_t longest;  // fetch so far, in seconds
};

struct t_pol_xml_config {
  avl_node link;
  int32_t type;  // with `name`: the tree's key
  char name[POL_NAME_SIZE];
  char* text;     // NUL-terminated; null while nothing was fetched
  uint32_t size;  // of the text, without the NUL
  t_pol_fetch_time fetched;
};

namespace pol {

// All 0 for an object that the cache does not know.
t_pol_fetch_time xml_fetch_time(int32_t type, const char* name);

// Makes `text` the object's text and notes that fetching it began at `start` and ends now. An
// object that is gone from the cache is passed over. False without memory: it has no text then.
[[nodiscard]] bool xml_config_store(t_pol_ctx* ctx, int32_t type, const char* name,
                                    std::string_view text, time_t start);

// Appends what the cache has of an object, if anything. POL_ELOCK when the cache cannot be locked.
[[nodiscard]] uint32_t xml_config_append(int32_t type, const char* name, XmlText* text);

// Objects whose texts are copied one after another once their length is known. Records of the cache
// come and go by calls on the context only; a text may be replaced by the worker at any time.
struct XmlPieces {
  const t_pol_xml_config** items;
  size_t count;
  size_t room;
};

// As for texts.
[[nodiscard]] uint32_t xml_pieces_init(XmlPieces* pieces);
void xml_pieces_free(XmlPieces* pieces);
// As xml_config_append; `known` keeps the object's record for the next time.
[[nodiscard]] uint32_t xml_pieces_append(int32_t type, const char* name, XmlRef* known,
                                         XmlPieces* pieces);
[[nodiscard]] uint32_t xml_pieces_length(const XmlPieces& pieces, size_t* length);
// Copies all texts to `to`, which has room for so many bytes. False in `same` when they have
// another length by now.
[[nodiscard]] uint32_t xml_pieces_copy(const XmlPieces& pieces, char* to, size_t length,
                                       bool* same);

}  // namespace pol
