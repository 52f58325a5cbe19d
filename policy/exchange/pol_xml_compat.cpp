// SPDX-License-Identifier: Apache-2.0
// The compatibility filter. One walk from the root down finds the paths that the schema does not
// know; then one query a path takes the elements out, wherever in the document they stand. The
// schema is asked for whole paths, and for each different one once: it is the device's, and what a
// look-up costs there is not known here.
//
// The parser is never cleaned up here, on purpose: that would tear down libxml2 for the whole
// process, under a host or another thread that is using it. A document leaves nothing behind.
#include "policy/pol_xml_compat.h"

#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <cassert>
#include <cstdio>
#include <cstring>

#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "exchange/pol_xml_bounds.h"
#include "yarrow/yarrow_schema.h"

namespace {

constexpr char kPrefix[] = "zenodra-policy";
constexpr size_t kMaxText = 256u << 20;  // the tree that the parser makes of it is many times that
constexpr size_t kMaxPath = 512;
constexpr size_t kMaxPaths = 32;
constexpr size_t kMaxDepth = kMaxPath / sizeof kPrefix;  // a step takes more than its prefix

const xmlChar* xml_text(const char* text) { return reinterpret_cast<const xmlChar*>(text); }

// An answer of the schema. Names of one text that are equal are one pointer.
struct Answer {
  uint32_t parent;  // id of the step above; 0 for the top
  uint32_t id;      // from 1; 0 for a free place
  const xmlChar* name;
  bool known;
};

// What was asked: a hash table, half empty at least, of memory type 0. Without memory for it, it is
// given up and the schema is asked again.
struct Answers {
  Answer* places;
  size_t room;  // a power of two, or 0
  uint32_t count;
  bool given_up;
};

struct Walk {
  size_t count;  // of paths, which are unknown each
  size_t lengths[kMaxPaths];
  char paths[kMaxPaths][kMaxPath];

  // The path to the element that is looked at: where the path of each step above ends, and the id
  // of its answer.
  char path[kMaxPath];
  size_t ends[kMaxDepth + 1];
  uint32_t ids[kMaxDepth + 1];
  Answers answers;

  bool full;
  bool long_told;
  bool no_schema;
};

Answer* place_of(const Answers& answers, uint32_t parent, const xmlChar* name) {
  uint64_t hash =
      (reinterpret_cast<uintptr_t>(name) ^ (uint64_t{parent} << 40)) * 0x9e3779b97f4a7c15;
  for (size_t at = hash >> 32;; ++at) {
    Answer* place = &answers.places[at & (answers.room - 1)];
    if (place->id == 0 || (place->parent == parent && place->name == name)) return place;
  }
}

bool make_room(Answers* answers) {
  if (answers->given_up) return false;
  if (answers->count < answers->room / 2) return true;
  Answers grown = {nullptr, answers->room != 0 ? answers->room * 2 : 256, answers->count, false};
  grown.places =
      static_cast<Answer*>(pol_calloc(grown.room, sizeof *grown.places, pol::MEM_UNCOUNTED));
  if (grown.places == nullptr) {
    answers->given_up = true;
    return false;
  }
  for (size_t i = 0; i < answers->room; ++i) {
    const Answer& answer = answers->places[i];
    if (answer.id != 0) *place_of(grown, answer.parent, answer.name) = answer;
  }
  pol_free(answers->places, pol::MEM_UNCOUNTED);
  *answers = grown;
  return true;
}

// By a parser with options of its own, because those of xmlParseMemory are globals that a host may
// have set to anything. Without XML_PARSE_HUGE the parser bounds nesting and the length of a text.
xmlDoc* parse(const char* text, uint32_t length) {
  if (text == nullptr || length > kMaxText || !pol::xml_tags_bounded({text, length})) {
    return nullptr;
  }
  xmlParserCtxt* parser = xmlNewParserCtxt();
  if (parser == nullptr) return nullptr;
  pol::xml_parser_bound(parser);
  xmlDoc* doc = xmlCtxtReadMemory(parser, text, static_cast<int>(length), nullptr, nullptr,
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  xmlFreeParserCtxt(parser);
  return doc;
}

void note_unknown(Walk* walk) {
  for (size_t i = 0; i < walk->count; ++i) {
    if (strncmp(walk->paths[i], walk->path, walk->lengths[i]) == 0) return;
  }
  if (walk->count == kMaxPaths) {
    POL_LOG_ALWAYS("Too many incompat xpaths, left in: %s\n", walk->path);
    walk->full = true;
    return;
  }
  POL_LOG("Incompat xpath: %s\n", walk->path);
  walk->lengths[walk->count] = strlen(walk->path);
  memcpy(walk->paths[walk->count], walk->path, sizeof walk->path);
  ++walk->count;
}

// Whether the schema knows the walk's path. What could not be asked is no answer.
bool ask(Walk* walk) {
  yarrow_errno = YARROW_OK;
  if (yarrow_cs_node_cd(nullptr, "%s", walk->path) != nullptr) return true;
  walk->no_schema |= yarrow_errno == YARROW_ERR_NOTCONNECTED;
  return false;
}

// Whether the schema knows the element, so that what is below it is to be looked at.
bool known(Walk* walk, const xmlNode* element, size_t depth) {
  const uint32_t parent = walk->ids[depth];
  const bool remembers = make_room(&walk->answers);
  Answer* place = remembers ? place_of(walk->answers, parent, element->name) : nullptr;
  if (place != nullptr && place->id != 0 && !place->known) return false;
  char* step = walk->path + walk->ends[depth];
  const size_t room = sizeof walk->path - walk->ends[depth];
  int size = snprintf(step, room, "/%s:%s", kPrefix, reinterpret_cast<const char*>(element->name));
  if (size < 0 || static_cast<size_t>(size) >= room) {
    if (!walk->long_told) POL_LOG_ALWAYS("Path too long, left in: %s\n", walk->path);
    walk->long_told = true;
    return false;
  }
  uint32_t id = place != nullptr ? place->id : 0;
  if (id == 0) {
    const bool found = ask(walk);
    if (walk->no_schema) return false;
    if (!found) note_unknown(walk);
    if (place != nullptr) {
      id = ++walk->answers.count;
      *place = {parent, id, element->name, found};
    }
    if (!found) return false;
  }
  walk->ends[depth + 1] = walk->ends[depth] + static_cast<size_t>(size);
  walk->ids[depth + 1] = id;
  return true;
}

// Without recursion: how deep a text nests is the sender's choice.
void find_unknown(Walk* walk, const xmlNode* root) {
  size_t depth = 0;
  for (const xmlNode* node = root; !walk->full && !walk->no_schema;) {
    if (node->type == XML_ELEMENT_NODE && known(walk, node, depth) && node->children != nullptr) {
      node = node->children;
      ++depth;
      continue;
    }
    for (; node != root && node->next == nullptr; node = node->parent) --depth;
    if (node == root) return;
    node = node->next;
  }
}

void unlink_nodes(const char* path, xmlXPathContext* context) {
  xmlXPathObject* found = xmlXPathEvalExpression(xml_text(path), context);
  if (found == nullptr) {
    POL_LOG_ALWAYS("Error evaluating xpath: %s\n", path);
    return;
  }
  const xmlNodeSet* nodes = found->nodesetval;
  if (nodes == nullptr || nodes->nodeNr <= 0) {
    POL_LOG("No nodes found for xpath: %s\n", path);
  } else {
    POL_LOG("Unlinking %u nodes for xpath: %s\n", static_cast<unsigned>(nodes->nodeNr), path);
    for (int j = 0; j < nodes->nodeNr; ++j) {
      assert(nodes->nodeTab[j]);
      xmlUnlinkNode(nodes->nodeTab[j]);
      xmlFreeNode(nodes->nodeTab[j]);
      nodes->nodeTab[j] = nullptr;  // freeing the set looks at what it still holds
    }
  }
  xmlXPathFreeObject(found);
}

bool remove_unknown(const Walk& walk, xmlDoc* doc, const char* name_space) {
  xmlXPathContext* context = xmlXPathNewContext(doc);
  if (context == nullptr) {
    POL_LOG_ALWAYS("Error creating xpath context\n");
    return false;
  }
  context->error = [](void*, auto) {};  // not to the host's stderr
  bool bound = name_space != nullptr &&
               xmlXPathRegisterNs(context, xml_text(kPrefix), xml_text(name_space)) == 0;
  if (!bound) POL_LOG_ALWAYS("Error registering namespace\n");
  for (size_t i = 0; bound && i < walk.count; ++i) unlink_nodes(walk.paths[i], context);
  xmlXPathFreeContext(context);
  return bound;
}

char* dumped(xmlDoc* doc, uint32_t* length) {
  xmlChar* text = nullptr;
  int size = 0;
  xmlDocDumpMemory(doc, &text, &size);
  if (text == nullptr || size <= 0) {
    POL_LOG_ALWAYS("Error dumping XML document to buffer\n");
    if (text != nullptr) xmlFree(text);
    return nullptr;
  }
  *length = static_cast<uint32_t>(size);
  return reinterpret_cast<char*>(text);
}

char* filtered(const char* name_space, xmlDoc* doc, uint32_t* out_length) {
  const xmlNode* root = xmlDocGetRootElement(doc);
  if (root == nullptr) {
    POL_LOG_ALWAYS("Error getting root element\n");
    return nullptr;
  }
  Walk walk;
  memset(&walk, 0, sizeof walk);
  find_unknown(&walk, root);
  pol_free(walk.answers.places, pol::MEM_UNCOUNTED);
  if (walk.no_schema) {
    POL_LOG_ALWAYS("No schema to compare with\n");
    return nullptr;
  }
  if (walk.count == 0) {
    POL_LOG("No incompatible nodes found\n");
    return nullptr;
  }
  if (!remove_unknown(walk, doc, name_space)) {
    POL_LOG_ALWAYS("Error removing incompat nodes\n");
    return nullptr;
  }
  return dumped(doc, out_length);
}

}  // namespace

char* pol_xml_fetch_compat_config(const char* name_space, const char* text, uint32_t length,
                                  uint32_t* out_length) {
  if (out_length == nullptr) return nullptr;
  xmlDoc* doc = parse(text, length);
  if (doc == nullptr) {
    POL_LOG_ALWAYS("Error parsing XML\n");
    return nullptr;
  }
  char* pruned = filtered(name_space, doc, out_length);
  xmlFreeDoc(doc);
  return pruned;
}
