// SPDX-License-Identifier: Apache-2.0
// What is kept of any text that an agent may save: the first byte is the object's type. Compared
// with C's string functions on a terminated copy.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "exchange/pol_xml_fetch_internal.h"
#include "policy/pol_xml_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint32_t type = data[0];
  // Of exactly its length: a byte read beyond it is found.
  const std::vector<char> bytes(data + 1, data + size);
  std::string_view part;
  pol::XmlCut cut = pol::xml_cut(type, {bytes.data(), bytes.size()}, &part);

  if (type == 0 || type >= POL_XML_TYPES) {
    if (cut != pol::XML_CUT_NO_HEADER) abort();
    return 0;
  }
  const std::string text(bytes.begin(), bytes.end());
  const char* start = strstr(text.c_str(), pol_fwd_type2headerstr[type]);
  const char* end = start != nullptr ? strstr(start, pol_fwd_type2footerstr[type]) : nullptr;
  pol::XmlCut expected = start == nullptr ? pol::XML_CUT_NO_HEADER
                         : end == nullptr ? pol::XML_CUT_NO_FOOTER
                                          : pol::XML_CUT_DONE;
  if (cut != expected) abort();
  if (cut == pol::XML_CUT_DONE &&
      part != std::string_view(start, static_cast<size_t>(end - start))) {
    abort();
  }
  return 0;
}
