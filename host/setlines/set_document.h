/* SPDX-License-Identifier: Apache-2.0
 *
 * set_document.h - a text of set-lines made into the XML that an agent loads.
 *
 * "set WORDS" sets a leaf or makes an entry, "delete WORDS" takes away what is there before the text;
 * what a later line sets below it replaces it. Lines may be empty, or comments after a #. A leaf or
 * item that is set twice is a fault, as it is in XML.
 *
 * The XML has a line for each node, and each line's place in the text: so that what the agent says of
 * a value can be told where it was written.
 */
#ifndef HOST_SETLINES_SET_DOCUMENT_H
#define HOST_SETLINES_SET_DOCUMENT_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "set_words.h"

namespace polctl {

struct SetPlace {
  uint32_t line = 0;
  uint32_t column = 0;
};

struct SetFault {
  SetPlace place;
  std::string what;
  std::string expected;
};

struct SetDocument {
  std::string xml;
  std::vector<SetPlace> places; /* of the lines of `xml`, the first at 0 */
  std::vector<SetFault> faults; /* then `xml` is of no use */

  /* The place of a line of `xml`, from 1; the beginning for one that has none. */
  SetPlace place_of(uint32_t xml_line) const;
};

/* Words are read from the node at `from`. */
SetDocument read_set_lines(std::string_view text, const SetPath& from = {});

}  // namespace polctl

#endif
