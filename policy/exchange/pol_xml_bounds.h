// SPDX-License-Identifier: Apache-2.0
//
// pol_xml_bounds.h - what may be handed to libxml2 without it working longer than the text is long.
//
// libxml2 compares each attribute of a tag with those before it, each name of a namespace with
// those in scope, and looks up names in a table that stops growing; a text of one tag with 80,000
// attributes thus takes it a minute. Attributes are bounded before it sees them, namespaces and
// names as it meets them.
#pragma once

#include <libxml/parser.h>

#include <cstddef>
#include <string_view>

namespace pol {

inline constexpr size_t kMaxTagBytes = 64u << 10;
inline constexpr size_t kMaxAttributes = 64;  // of one tag
inline constexpr int kMaxNamespaces = 64;     // in scope at one place
inline constexpr size_t kMaxXmlNames =
    100'000;  // different ones, with the short texts kept like them

// Whether every tag of the text keeps its bounds, and no tag can be read as ending elsewhere: the
// text does not begin like one of an encoding whose markup is not of ASCII's bytes.
[[nodiscard]] bool xml_tags_bounded(std::string_view text);

// Has the parser stop, with a text that is not well-formed, at the first fault, at a declaration of
// such an encoding, at a DOCTYPE and where there are too many namespaces or names. For texts
// without entities of their own; the parser builds a tree.
void xml_parser_bound(xmlParserCtxt* parser);

}  // namespace pol
