// SPDX-License-Identifier: Apache-2.0
//
// pol_xml_fetch_internal.h - what is kept of the text that the agent saves of an object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace pol {

enum XmlCut { XML_CUT_DONE, XML_CUT_NO_HEADER, XML_CUT_NO_FOOTER };

// Leaves in `part` the text from the type's header on up to its footer; both lie in `text`, which
// ends at its first NUL. A type that is none has no header.
[[nodiscard]] XmlCut xml_cut(uint32_t type, std::string_view text, std::string_view* part);

// A stream's text, NUL-terminated, which the caller frees as MEM_FETCH_XML; null on failure, and
// when it takes longer than the socket's time limit for one part.
char* receive_text(int sock, const char* path, size_t* length);

}  // namespace pol
