// SPDX-License-Identifier: Apache-2.0
//
// One pass of libxml2's event parser, which builds entries bottom-up; an unknown element is skipped
// with all it holds, so that the faults after it are found as well.
#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <algorithm>
#include <cstring>

#include "agent/keypath.h"
#include "agent/validate.h"
#include "agent/value_words.h"
#include "agent/xml.h"
#include "platform/yarrow/wire.h"

namespace agent {

namespace {

constexpr size_t kMaxDepth = 40;

// Where a start tag stands; column 0 is not known.
struct Place {
  int line = 0;
  int column = 0;
};

struct Element {
  const SchemaNode* schema = nullptr;
  Place place;
  std::string text;            // of a leaf
  std::shared_ptr<Node> node;  // of a container or an entry; an entry's keys may come late
  uint32_t keys_seen = 0;
  bool spoiled = false;  // a key is refused: it cannot be put anywhere
};

struct Loader {
  const Schema& schema;
  const XmlRules& rules;
  xmlParserCtxtPtr parser = nullptr;
  std::vector<Element> stack;
  std::vector<const SchemaNode*> named;
  size_t skipping = 0;  // depth inside an element that is passed over
  bool in_envelope = false;
  bool seen_root = false;
  std::string faults;
  size_t fault_count = 0;

  void fault(Place place, std::string_view reason);
  Place tag_place() const;
  std::string path() const;
  void start(std::string_view name, const char* name_space, int attributes);
  void end();
  void end_leaf(Element& element);
  void end_entry(Element& element);
};

// "line 5:7: reason"
void Loader::fault(Place place, std::string_view reason) {
  if (++fault_count > kMaxFaults) return;
  if (!faults.empty()) faults += '\n';
  faults += "line " + std::to_string(place.line);
  if (place.column > 0) faults += ":" + std::to_string(place.column);
  faults += ": ";
  faults += reason;
}

// Of the start tag that the parser has just read but for its end. One that goes over several lines is
// at the last of them, in no column.
Place Loader::tag_place() const {
  const xmlParserInput& input = *parser->input;
  const xmlChar* at = input.cur;
  while (at > input.base && *at != '<' && *at != '\n') --at;
  bool found = *at == '<';
  return {xmlSAX2GetLineNumber(parser), found ? input.col - static_cast<int>(input.cur - at) : 0};
}

std::string Loader::path() const {
  Path steps;
  std::string above = stack.front().schema->path;
  for (size_t i = 1; i < stack.size(); ++i) {
    const Element& element = stack[i];
    bool is_entry = element.node && element.schema->kind == YARROW_NODE_LIST;
    uint32_t all_keys = (1u << element.schema->key_count) - 1;
    bool complete = is_entry && element.keys_seen == all_keys && !element.spoiled;
    steps.push_back({element.schema, complete ? element.node->texts : Keys{}});
  }
  return steps.empty() ? above : above + path_text(steps);
}

void Loader::start(std::string_view name, const char* name_space, int attributes) {
  if (skipping > 0) {
    if (++skipping + stack.size() > kMaxDepth) xmlStopParser(parser);
    return;
  }
  Place place = tag_place();
  bool is_root = !seen_root;
  seen_root = true;
  if (is_root && name == "config" && name_space != nullptr &&
      strcmp(name_space, kConfigNamespace) == 0) {
    in_envelope = true;
    return;
  }
  const SchemaNode* child = schema_child(*stack.back().schema, name);
  auto here = [&] { return path() + "/" + std::string(name); };
  bool known = child != nullptr && (name_space == nullptr || child->name_space == name_space);
  bool other_kind =
      known &&
      (rules.state ? !child->is_state && !child->holds_state && !child->is_key : child->is_state);
  if (!known) {
    fault(place, here() + ": " +
                     (child != nullptr ? "of another namespace (expected " + child->name_space + ")"
                                       : unknown_child(*stack.back().schema)));
  } else if (other_kind) {
    if (!rules.skip_other) {
      fault(place, here() + (rules.state ? ": is no state data" : ": is state data"));
    }
  } else if (attributes > 0) {
    fault(place, here() + ": attributes mean nothing here");
  } else {
    if (stack.size() == 1) named.push_back(child);
    Element element;
    element.schema = child;
    element.place = place;
    if (!child->is_leaf()) {
      element.node = std::make_shared<Node>();
      element.node->schema = child;
      element.node->texts.resize(child->key_count);
    }
    stack.push_back(std::move(element));
    if (stack.size() > kMaxDepth) xmlStopParser(parser);
    return;
  }
  skipping = 1;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

void Loader::end_leaf(Element& element) {
  const SchemaNode& leaf = *element.schema;
  Element& parent = stack.back();
  auto here = [&] { return path() + "/" + leaf.name; };
  std::string canonical;
  std::string reason;
  if (!schema_canonical(schema, leaf, trimmed(element.text), &canonical, &reason)) {
    fault(element.place, here() + ": " + reason);
    if (leaf.is_key) {
      parent.keys_seen |= 1u << leaf.index;
      parent.spoiled = true;
    }
    return;
  }
  if (leaf.is_key) {
    std::string& key = parent.node->texts[leaf.index];
    uint32_t bit = 1u << leaf.index;
    if ((parent.keys_seen & bit) != 0) fault(element.place, here() + ": stands twice");
    parent.keys_seen |= bit;
    key = std::move(canonical);
    return;
  }
  std::vector<std::string> texts;
  NodeRef old = child_of(*parent.node, leaf);
  if (old && leaf.kind == YARROW_NODE_LEAF) {
    fault(element.place, here() + ": stands twice");
    return;
  }
  if (old) texts = old->texts;
  if (texts.size() == yarrow::kMaxLeafListItems) {
    fault(element.place, here() + ": too many items");
    return;
  }
  if (std::find(texts.begin(), texts.end(), canonical) != texts.end()) return;
  texts.push_back(std::move(canonical));
  *parent.node = *with_child(*parent.node, leaf, make_leaf(leaf, std::move(texts)));
}

void Loader::end_entry(Element& element) {
  const SchemaNode& list = *element.schema;
  if (element.spoiled) return;
  for (uint32_t i = 0; i < list.key_count; ++i) {
    if ((element.keys_seen & 1u << i) != 0) continue;
    fault(element.place,
          path() + "/" + list.name + ": its key " + list.children[i]->name + " is missing");
    return;
  }
  Element& parent = stack.back();
  NodeRef there = child_of(*parent.node, list);
  auto now = std::make_shared<Node>();
  now->schema = &list;
  if (there) now->entries = there->entries;
  NodeRef old = map_find(now->entries, element.node->texts);
  now->entries = map_put(now->entries, old ? merged(old, element.node) : element.node);
  // In place: a copy of the parent for each of its entries would cost more than the entry.
  for (NodeRef& child : parent.node->children) {
    if (child->schema != &list) continue;
    child = now;
    return;
  }
  *parent.node = *with_child(*parent.node, list, now);
}

void Loader::end() {
  if (skipping > 0) {
    --skipping;
    return;
  }
  if (stack.size() == 1) return;  // the envelope's end
  Element element = std::move(stack.back());
  stack.pop_back();
  if (element.schema->is_leaf()) {
    end_leaf(element);
    return;
  }
  if (!trimmed(element.text).empty()) {
    fault(element.place, path() + "/" + element.schema->name + ": text where elements belong");
  }
  if (element.schema->kind == YARROW_NODE_LIST) {
    end_entry(element);
    return;
  }
  Element& parent = stack.back();
  NodeRef old = child_of(*parent.node, *element.schema);
  if (!element.node->children.empty()) {
    *parent.node = *with_child(*parent.node, *element.schema, merged(old, element.node));
  }
}

std::string_view text_of(const xmlChar* text) {
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

void on_start(void* state, const xmlChar* name, const xmlChar* /*prefix*/, const xmlChar* uri,
              int /*namespaces*/, const xmlChar** /*declared*/, int attributes, int /*defaulted*/,
              const xmlChar** /*values*/) {
  static_cast<Loader*>(state)->start(text_of(name), reinterpret_cast<const char*>(uri), attributes);
}

void on_end(void* state, const xmlChar* /*name*/, const xmlChar* /*prefix*/,
            const xmlChar* /*uri*/) {
  static_cast<Loader*>(state)->end();
}

void on_text(void* state, const xmlChar* text, int length) {
  Loader& loader = *static_cast<Loader*>(state);
  if (loader.skipping > 0 || loader.stack.empty()) return;
  std::string& into = loader.stack.back().text;
  if (into.size() <= yarrow::kMaxValueText + 64) {
    into.append(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
  }
}

void on_document_type(void* state, const xmlChar* /*name*/, const xmlChar* /*external*/,
                      const xmlChar* /*system*/) {
  Loader& loader = *static_cast<Loader*>(state);
  loader.fault({xmlSAX2GetLineNumber(loader.parser), 0}, "a document type is not allowed");
  xmlStopParser(loader.parser);
}

void on_error(void* state, xmlErrorPtr error) {
  Loader& loader = *static_cast<Loader*>(state);
  if (error == nullptr || error->level < XML_ERR_ERROR || error->code == XML_ERR_USER_STOP) return;
  std::string_view message = error->message != nullptr ? error->message : "unreadable";
  loader.fault({error->line, error->int2}, trimmed(message));
}

}  // namespace

Result xml_load(const Schema& schema, std::string_view text, const SchemaNode& top_schema,
                const XmlRules& rules, XmlContent* content) {
  if (text.size() > yarrow::kMaxLoadText) return failed(YARROW_ERR_TOOBIG, "too much text");
  xmlSAXHandler handler = {};
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = on_start;
  handler.endElementNs = on_end;
  handler.characters = on_text;
  handler.cdataBlock = on_text;
  handler.internalSubset = on_document_type;
  handler.serror = on_error;
  Loader loader{schema, rules, nullptr, {}, {}, 0, false, false, {}, 0};
  Element top;
  top.schema = &top_schema;
  top.node = std::make_shared<Node>();
  top.node->schema = &top_schema;
  loader.stack.push_back(std::move(top));
  xmlParserCtxtPtr parser = xmlCreateMemoryParserCtxt(text.data(), static_cast<int>(text.size()));
  if (parser == nullptr) return failed(YARROW_ERR_MALFORMED, "line 1: no text");
  loader.parser = parser;
  xmlSAXHandlerPtr own_handler = parser->sax;
  parser->sax = &handler;
  parser->userData = &loader;
  xmlCtxtUseOptions(parser, XML_PARSE_NONET | XML_PARSE_HUGE);
  int status = xmlParseDocument(parser);
  size_t depth = loader.stack.size() + loader.skipping;
  if (depth > kMaxDepth)
    loader.fault({xmlSAX2GetLineNumber(parser), 0}, "elements nested too deep");
  if (status != 0 && loader.fault_count == 0) loader.fault({1, 1}, "cannot be parsed");
  parser->sax = own_handler;
  if (parser->myDoc != nullptr) xmlFreeDoc(parser->myDoc);
  xmlFreeParserCtxt(parser);
  if (loader.fault_count > 0) {
    if (loader.fault_count > kMaxFaults) loader.faults += "\nand more";
    return failed(YARROW_ERR_MALFORMED, loader.faults);
  }
  content->node = loader.stack.front().node;
  content->named = std::move(loader.named);
  return {};
}

}  // namespace agent
