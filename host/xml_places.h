/* SPDX-License-Identifier: Apache-2.0
 *
 * xml_places.h - in which line of the configuration files a node of the configuration stands.
 */
#ifndef HOST_XML_PLACES_H
#define HOST_XML_PLACES_H

#include <libxml/tree.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace polctl {

class XmlPlaces {
 public:
  /* Files that cannot be read or parsed hold no places. */
  explicit XmlPlaces(const std::vector<std::string>& files);

  /* The place of a path as the agent writes it, "/policy/lists/site-list{A}/site{5}": in the last
   * file that holds it. A node that stands nowhere is at the place of the nearest node around it
   * that does. False, with nothing changed, when not even its top does. */
  bool find(const std::string& path, std::string* file, uint32_t* line) const;

 private:
  struct FreeDoc {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
  };
  struct File {
    std::string name;
    std::unique_ptr<xmlDoc, FreeDoc> doc;
  };
  std::vector<File> files_;
};

}  // namespace polctl

#endif
