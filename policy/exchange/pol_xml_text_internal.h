// SPDX-License-Identifier: Apache-2.0
//
// pol_xml_text_internal.h - a text that grows by doubling, so that appending costs what is
// appended.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace pol {

struct XmlText {
  char* bytes;  // NUL-terminated
  size_t length;
  size_t room;  // in all, without the NUL
};

// Each is POL_OK or POL_ENOMEM, which leaves the text as it was. A text of all zero bytes may be
// freed.
[[nodiscard]] uint32_t xml_text_init(XmlText* text);
[[nodiscard]] uint32_t xml_text_append(XmlText* text, std::string_view more);
void xml_text_free(XmlText* text);

}  // namespace pol
