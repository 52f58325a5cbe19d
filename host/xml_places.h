/* SPDX-License-Identifier: Apache-2.0
 *
 * xml_places.h - where in the configuration files a node of the configuration stands.
 */
#ifndef HOST_XML_PLACES_H
#define HOST_XML_PLACES_H

#include <libxml/tree.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent_link.h"

namespace polctl {

class XmlPlaces {
 public:
  /* Files that cannot be read or parsed hold no places. REQUIRES: they outlive this. */
  explicit XmlPlaces(const SourceFiles& files);

  /* The place of a path as the agent writes it, "/policy/lists/site-list{A}/site{5}": in the last
   * file that holds it. A node that stands nowhere is at the place of the nearest node around it
   * that does. Nothing is changed when not even its top does. Whether the node itself stands there. */
  bool find(const std::string& path, ConfigFault* fault);

 private:
  struct FreeDoc {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
  };
  /* Entries of a list by the texts of their leaves: files have lists of 100,000. */
  using Entries = std::unordered_multimap<std::string, const xmlNode*>;
  struct File {
    std::string name;
    const SetDocument* set_lines; /* what the XML was made of; null: nothing */
    std::unique_ptr<xmlDoc, FreeDoc> doc;
    std::unordered_map<const xmlNode*, Entries>
        entries; /* by what the list stands in; made at need */
  };
  struct Step;
  static std::vector<Step> steps_of(const std::string& path);
  static const xmlNode* child_at(File* file, const xmlNode* parent, const Step& step);
  static const xmlNode* node_at(File* file, const std::vector<Step>& steps, size_t* depth);
  std::vector<File> files_;
};

}  // namespace polctl

#endif
