// SPDX-License-Identifier: Apache-2.0
//
// pol_xml_text_internal.h - a text that grows by doubling, so that appending costs what is appended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "lists/named_list.h"

namespace pol {

struct XmlText {
  char* bytes;  // NUL-terminated
  size_t length;
  size_t room;  // in all, without the NUL
};

// Each is POL_OK or POL_ENOMEM, which leaves the text as it was. A text of all zero bytes may be freed.
[[nodiscard]] uint32_t xml_text_init(XmlText* text);
[[nodiscard]] uint32_t xml_text_append(XmlText* text, std::string_view more);
void xml_text_free(XmlText* text);

// Appends what the cache has of an object, if anything. POL_ELOCK when the cache cannot be locked.
[[nodiscard]] uint32_t xml_config_append(int32_t type, const char* name, XmlText* text);

// Objects whose texts are copied one after another once their length is known. Records of the cache come and
// go by calls on the context only; a text may be replaced by the worker at any time.
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
// Copies all texts to `to`, which has room for so many bytes. False in `same` when they have another length
// by now.
[[nodiscard]] uint32_t xml_pieces_copy(const XmlPieces& pieces, char* to, size_t length,
                                       bool* same);

}  // namespace pol
