// SPDX-License-Identifier: Apache-2.0
//
// Whether a text may be handed to an XML parser: what the parser needs more than linear time for is
// counted beforehand, in one pass, without memory of its own.
#ifndef AGENT_XML_BOUNDS_H
#define AGENT_XML_BOUNDS_H

#include <cstddef>
#include <string_view>

namespace agent {

constexpr size_t kXmlMaxTagBytes = 16384;
constexpr size_t kXmlMaxAttributes = 64;  // of a tag
constexpr size_t kXmlMaxNamespaces = 64;  // declared around one element
constexpr size_t kXmlMaxDepth = 256;      // elements in elements
constexpr size_t kXmlMaxNames = 2048;     // distinct, of elements, attributes and namespaces

// Null if the text keeps within the bounds; otherwise what goes beyond them, with its line. Beyond
// them are also document types, which can make a text larger than it is, and whatever pass and
// parser could take for different markup: other encodings, characters that XML does not have, '<' in
// tags. Says nothing about whether the text is well-formed.
const char* xml_beyond_bounds(std::string_view text, int* line);

// Whether the bytes are UTF-8 and of characters that XML can carry, as YANG's strings are.
bool is_xml_text(std::string_view text);

}  // namespace agent
#endif
