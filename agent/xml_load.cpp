// SPDX-License-Identifier: Apache-2.0
//
// One pass of libxml2's event parser, which builds entries bottom-up; an unknown element is skipped
// with all it holds, so that the faults after it are found as well. What an entry or the whole
// document holds is put together at its end, in one go, which is also when what stands twice is seen.
#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "agent/keypath.h"
#include "agent/validate.h"
#include "agent/value_words.h"
#include "agent/xml.h"
#include "agent/xml_bounds.h"
#include "platform/yarrow/wire.h"

namespace agent {

namespace {

using Operations = std::vector<XmlOperation>;

constexpr size_t kMaxDepth = 40;  // elements in elements
constexpr std::string_view kOperationNamespace = "urn:ietf:params:xml:ns:netconf:base:1.0";

bool deletes(XmlOperationKind kind) {
  return kind == XmlOperationKind::kDelete || kind == XmlOperationKind::kRemove;
}

bool before(const XmlPlace& a, const XmlPlace& b) {
  return std::tie(a.line, a.column) < std::tie(b.line, b.column);
}

// A leaf, an item or an entry as it stood in the text. One that is deleted is there too: it may not
// stand a second time.
struct Part {
  const SchemaNode* schema = nullptr;
  XmlPlace place;
  XmlOperationKind operation = XmlOperationKind::kMerge;
  std::string text;  // of a leaf or item
  NodeRef entry;
  Operations operations;  // in an entry
};

// What stood below an entry or container. A container that stands several times is one.
struct Parts {
  const SchemaNode* schema = nullptr;
  std::vector<Part> parts;
  std::vector<Parts> containers;
  Operations operations;  // of the containers themselves

  void add(Parts&& inside);
};

void Parts::add(Parts&& inside) {
  for (Parts& there : containers) {
    if (there.schema != inside.schema) continue;
    for (Part& part : inside.parts) there.parts.push_back(std::move(part));
    for (Parts& more : inside.containers) there.add(std::move(more));
    for (XmlOperation& one : inside.operations) there.operations.push_back(std::move(one));
    return;
  }
  containers.push_back(std::move(inside));
}

struct Element {
  const SchemaNode* schema = nullptr;
  XmlPlace place;
  XmlOperationKind operation = XmlOperationKind::kMerge;
  bool deleted = false;  // with an element around it
  bool too_long = false;
  bool spoiled = false;  // refused already: a key that is, or an element inside a leaf
  std::string text;      // of a leaf
  Keys keys;             // of an entry; they may come late
  uint32_t keys_seen = 0;
  Parts parts;
};

struct Fault {
  XmlPlace place;
  std::string reason;
};

// A value of a leaf, and what it is in canonical form.
struct KnownValue {
  std::string text;
  std::string canonical;
  bool known = false;
};

struct Loader {
  const Schema& schema;
  const XmlRules& rules;
  xmlParserCtxtPtr parser = nullptr;
  std::vector<Element> stack;
  std::vector<const SchemaNode*> named;
  std::vector<const SchemaNode*>
      building;                         // the containers between the top of the stack and a part
  size_t skipping = 0;                  // depth inside an element that is passed over
  std::vector<KnownValue> last_values;  // by leaf: entry after entry has the same, keys aside
  bool in_envelope = false;
  bool seen_root = false;
  std::vector<Fault> faults;
  size_t fault_count = 0;

  Loader(const Schema& by, const XmlRules& under)
      : schema(by), rules(under), last_values(by.all.size()) {}
  void fault(XmlPlace place, std::string reason);
  size_t depth() const { return stack.size() - 1 + skipping; }  // of the element that is open
  XmlPlace tag_place() const;
  std::string path() const;
  void start(std::string_view name, const char* name_space, int attributes, const xmlChar** values);
  void open(const SchemaNode& child, XmlPlace place, XmlOperationKind operation);
  bool read_operation(XmlPlace place, int attributes, const xmlChar** values, std::string_view name,
                      XmlOperationKind* operation);
  void end();
  bool canonical_of(const SchemaNode& leaf, const std::string& text, std::string* canonical,
                    std::string* reason);
  void end_leaf(Element& element);
  void end_key(const Element& leaf, std::string text);
  void end_entry(Element& element);
  void build(Parts& parts, Node& node, Operations* operations);
  void build_leaf_list(std::vector<Part>::iterator first, std::vector<Part>::iterator last,
                       Node& node, Operations* operations);
  void build_list(std::vector<Part>::iterator first, std::vector<Part>::iterator last, Node& node,
                  Operations* operations);
  void stands_twice(const Part& first, const Part& again);
};

void Loader::fault(XmlPlace place, std::string reason) {
  if (++fault_count <= kMaxFaults) faults.push_back({place, std::move(reason)});
}

// Of the start tag that the parser has just read but for its end. One that goes over several lines is
// at the last of them, in no column.
XmlPlace Loader::tag_place() const {
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
    bool complete = element.keys_seen != 0 && !element.spoiled &&
                    element.keys_seen + 1 == 1u << element.keys.size();
    steps.push_back({element.schema, complete ? element.keys : Keys{}});
  }
  for (const SchemaNode* container : building) steps.push_back({container, {}});
  return steps.empty() ? above : above + path_text(steps);
}

// False, with a fault, for attributes other than one operation.
bool Loader::read_operation(XmlPlace place, int attributes, const xmlChar** values,
                            std::string_view name, XmlOperationKind* operation) {
  static constexpr std::pair<std::string_view, XmlOperationKind> kWords[] = {
      {"merge", XmlOperationKind::kMerge},   {"replace", XmlOperationKind::kReplace},
      {"create", XmlOperationKind::kCreate}, {"delete", XmlOperationKind::kDelete},
      {"remove", XmlOperationKind::kRemove},
  };
  auto here = [&] { return path() + "/" + std::string(name); };
  for (int i = 0; i < attributes; ++i, values += 5) {  // name, prefix, namespace, begin, end
    auto text = [&](int at) { return reinterpret_cast<const char*>(values[at]); };
    bool known =
        strcmp(text(0), "operation") == 0 && values[2] != nullptr && text(2) == kOperationNamespace;
    if (!known) {
      fault(place, here() + ": attributes mean nothing here");
      return false;
    }
    std::string_view word(text(3), static_cast<size_t>(text(4) - text(3)));
    const auto* found = std::find_if(std::begin(kWords), std::end(kWords),
                                     [&](const auto& one) { return one.first == word; });
    if (found == std::end(kWords)) {
      fault(place, here() + ": \"" + std::string(word) +
                       "\" is no operation (expected merge, replace, create, delete or remove)");
      return false;
    }
    *operation = found->second;
  }
  bool changes = *operation != XmlOperationKind::kMerge;
  if (changes && stack.back().deleted && !deletes(*operation)) {
    fault(place, here() + ": an operation inside what is deleted");
    return false;
  }
  return true;
}

void Loader::open(const SchemaNode& child, XmlPlace place, XmlOperationKind operation) {
  if (stack.size() == 1) named.push_back(&child);
  Element element;
  element.schema = &child;
  element.place = place;
  element.operation = operation;
  element.deleted = stack.back().deleted || deletes(operation);
  element.keys.resize(child.key_count);
  stack.push_back(std::move(element));
  if (depth() > kMaxDepth) xmlStopParser(parser);
}

void Loader::start(std::string_view name, const char* name_space, int attributes,
                   const xmlChar** values) {
  if (skipping > 0) {
    ++skipping;
    if (depth() > kMaxDepth) xmlStopParser(parser);
    return;
  }
  const XmlPlace place = tag_place();
  bool is_root = !seen_root;
  seen_root = true;
  if (is_root && name == "config" && name_space != nullptr &&
      strcmp(name_space, kConfigNamespace) == 0) {
    in_envelope = true;
    if (attributes > 0) fault(place, "/config: attributes mean nothing here");
    return;
  }
  const SchemaNode* child = schema_child(*stack.back().schema, name);
  auto here = [&] { return path() + "/" + std::string(name); };
  bool known = child != nullptr && (name_space == nullptr || child->name_space == name_space);
  bool other_kind =
      known &&
      (rules.state ? !child->is_state && !child->holds_state && !child->is_key : child->is_state);
  XmlOperationKind operation = XmlOperationKind::kMerge;
  if (!known) {
    fault(place, here() + ": " +
                     (child != nullptr ? "of another namespace (expected " + child->name_space + ")"
                                       : unknown_child(*stack.back().schema)));
  } else if (other_kind) {
    if (!rules.skip_other) {
      fault(place, here() + (rules.state ? ": is no state data" : ": is state data"));
    }
  } else if (read_operation(place, attributes, values, name, &operation)) {
    open(*child, place, operation);
    return;
  }
  stack.back().spoiled = stack.back().spoiled || stack.back().schema->is_leaf();
  skipping = 1;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

void Loader::end_key(const Element& leaf, std::string text) {
  Element& entry = stack.back();
  uint32_t bit = 1u << leaf.schema->index;
  auto here = [&] { return path() + "/" + leaf.schema->name; };
  if ((entry.keys_seen & bit) != 0) fault(leaf.place, here() + ": stands twice");
  if (leaf.operation != XmlOperationKind::kMerge) {
    fault(leaf.place, here() + ": a key takes no operation");
  }
  entry.keys_seen |= bit;
  entry.keys[leaf.schema->index] = std::move(text);
}

bool Loader::canonical_of(const SchemaNode& leaf, const std::string& text, std::string* canonical,
                          std::string* reason) {
  KnownValue& last = last_values[leaf.id];
  if (last.known && last.text == text) {
    *canonical = last.canonical;
    return true;
  }
  if (!schema_canonical(schema, leaf, text, canonical, reason)) return false;
  if (!leaf.is_key) last = {text, *canonical, true};
  return true;
}

void Loader::end_leaf(Element& element) {
  const SchemaNode& leaf = *element.schema;
  Element& parent = stack.back();
  if (parent.deleted && !leaf.is_key) return;
  const bool needs_value =
      !element.spoiled && (!deletes(element.operation) || leaf.kind == YARROW_NODE_LEAF_LIST);
  std::string canonical;
  std::string reason;
  if (element.too_long) {
    reason = "a value of more than " + std::to_string(yarrow::kMaxValueText) + " bytes";
  } else if (needs_value && !canonical_of(leaf, element.text, &canonical, &reason)) {
    // What a type takes with blanks around it has them; other values were laid out for reading.
    std::string_view inner = trimmed(element.text);
    bool again = inner.size() != element.text.size();
    if (again) reason.clear();
    if (again) schema_canonical(schema, leaf, inner, &canonical, &reason);
  }
  if (element.spoiled || !reason.empty()) {
    if (!element.spoiled) fault(element.place, path() + "/" + leaf.name + ": " + reason);
    if (leaf.is_key) {
      parent.keys_seen |= 1u << leaf.index;
      parent.spoiled = true;
    }
  } else if (leaf.is_key) {
    end_key(element, std::move(canonical));
  } else {
    parent.parts.parts.push_back(
        {&leaf, element.place, element.operation, std::move(canonical), nullptr, {}});
  }
}

// The entry is still on the stack.
void Loader::end_entry(Element& element) {
  const SchemaNode& list = *element.schema;
  if (element.spoiled) return;
  Part part{&list, element.place, element.operation, {}, nullptr, {}};
  for (uint32_t i = 0; i < list.key_count; ++i) {
    if ((element.keys_seen & 1u << i) != 0) continue;
    std::string above = path();
    fault(element.place, above + ": its key " + list.children[i]->name + " is missing");
    return;
  }
  auto entry = std::make_shared<Node>();
  entry->schema = &list;
  if (!element.deleted) build(element.parts, *entry, &part.operations);
  entry->texts = std::move(element.keys);
  part.entry = std::move(entry);
  Element& parent = stack[stack.size() - 2];
  if (!parent.deleted) parent.parts.parts.push_back(std::move(part));
}

void Loader::stands_twice(const Part& first, const Part& again) {
  Path step;
  if (again.entry) step = {{again.schema, again.entry->texts}};
  std::string name = again.entry ? path_text(step) : "/" + again.schema->name;
  std::string item = again.schema->kind == YARROW_NODE_LEAF_LIST ? " \"" + again.text + "\"" : "";
  const auto& [earlier, later] = std::minmax(first.place, again.place, before);
  fault(later, path() + name + ":" + item + " stands twice (first in line " +
                   std::to_string(earlier.line) + ")");
}

// Makes the children of a node out of what stood below it, and gives the operations their paths from
// that node.
void Loader::build(Parts& all, Node& node, Operations* operations) {
  auto by_schema = [](const Part& a, const Part& b) { return a.schema->index < b.schema->index; };
  std::vector<Part>& parts = all.parts;
  if (!std::is_sorted(parts.begin(), parts.end(), by_schema)) {
    std::stable_sort(parts.begin(), parts.end(), by_schema);
  }
  for (auto first = parts.begin(), last = first; first != parts.end(); first = last) {
    last = std::find_if(first, parts.end(),
                        [&](const Part& part) { return part.schema != first->schema; });
    if (first->entry) {
      build_list(first, last, node, operations);
    } else if (first->schema->kind == YARROW_NODE_LEAF_LIST) {
      build_leaf_list(first, last, node, operations);
    } else {
      for (auto again = first + 1; again != last; ++again) stands_twice(*first, *again);
      const SchemaNode& leaf = *first->schema;
      if (!deletes(first->operation)) {
        node.children.push_back(make_leaf(leaf, {std::move(first->text)}));
      }
      if (first->operation != XmlOperationKind::kMerge) {
        operations->push_back({first->operation, first->place, {{&leaf, {}}}, {}});
      }
    }
  }
  for (Parts& inside : all.containers) {
    auto child = std::make_shared<Node>();
    child->schema = inside.schema;
    Operations below;
    building.push_back(inside.schema);
    build(inside, *child, &below);
    building.pop_back();
    for (XmlOperation& one : below) {
      one.path.insert(one.path.begin(), {inside.schema, {}});
      operations->push_back(std::move(one));
    }
    if (!child->children.empty()) node.children.push_back(std::move(child));
  }
  for (XmlOperation& one : all.operations) operations->push_back(std::move(one));
  std::sort(node.children.begin(), node.children.end(),
            [](const NodeRef& a, const NodeRef& b) { return a->schema->index < b->schema->index; });
}

void Loader::build_leaf_list(std::vector<Part>::iterator first, std::vector<Part>::iterator last,
                             Node& node, Operations* operations) {
  const SchemaNode& leaf = *first->schema;
  std::vector<const Part*> sorted;
  std::vector<std::string> texts;
  for (auto part = first; part != last; ++part) {
    sorted.push_back(&*part);
    if (!deletes(part->operation)) texts.push_back(part->text);
    if (part->operation != XmlOperationKind::kMerge) {
      operations->push_back({part->operation, part->place, {{&leaf, {}}}, part->text});
    }
  }
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Part* a, const Part* b) { return a->text < b->text; });
  for (size_t i = 1; i < sorted.size(); ++i) {
    if (sorted[i]->text == sorted[i - 1]->text) stands_twice(*sorted[i - 1], *sorted[i]);
  }
  if (texts.size() > yarrow::kMaxLeafListItems) {
    fault(first->place, path() + "/" + leaf.name + ": too many items");
  }
  if (!texts.empty()) node.children.push_back(make_leaf(leaf, std::move(texts)));
}

void Loader::build_list(std::vector<Part>::iterator first, std::vector<Part>::iterator last,
                        Node& node, Operations* operations) {
  const SchemaNode& list = *first->schema;
  auto by_keys = [&](const Part& a, const Part& b) {
    return compare_keys(list, a.entry->texts, b.entry->texts) < 0;
  };
  if (!std::is_sorted(first, last, by_keys)) std::stable_sort(first, last, by_keys);
  std::vector<NodeRef> entries;
  entries.reserve(static_cast<size_t>(last - first));
  for (auto part = first; part != last; ++part) {
    if (part != first && !by_keys(*(part - 1), *part)) stands_twice(*(part - 1), *part);
    const Step step{&list, part->entry->texts};
    if (part->operation != XmlOperationKind::kMerge) {
      operations->push_back({part->operation, part->place, {step}, {}});
    }
    for (XmlOperation& one : part->operations) {
      one.path.insert(one.path.begin(), step);
      operations->push_back(std::move(one));
    }
    if (!deletes(part->operation)) entries.push_back(part->entry);
  }
  if (entries.empty() || fault_count > 0) return;
  auto made = std::make_shared<Node>();
  made->schema = &list;
  made->entries = map_build(entries);
  node.children.push_back(std::move(made));
}

void Loader::end() {
  if (skipping > 0) {
    --skipping;
    return;
  }
  if (stack.size() == 1) return;  // the envelope's end
  if (stack.back().schema->is_leaf()) {
    Element leaf = std::move(stack.back());
    stack.pop_back();
    end_leaf(leaf);
    return;
  }
  Element& element = stack.back();
  if (!trimmed(element.text).empty()) {
    fault(element.place, path() + ": text where elements belong");
  }
  Parts& around = stack[stack.size() - 2].parts;
  const SchemaNode& schema = *element.schema;
  if (schema.kind == YARROW_NODE_LIST) {
    end_entry(element);
  } else if (!stack[stack.size() - 2].deleted) {
    if (element.operation != XmlOperationKind::kMerge) {
      around.operations.push_back({element.operation, element.place, {{&schema, {}}}, {}});
    }
    element.parts.schema = &schema;
    if (!element.deleted) around.add(std::move(element.parts));
  }
  stack.pop_back();
}

std::string_view text_of(const xmlChar* text) {
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

void on_start(void* state, const xmlChar* name, const xmlChar* /*prefix*/, const xmlChar* uri,
              int /*namespaces*/, const xmlChar** /*declared*/, int attributes, int /*defaulted*/,
              const xmlChar** values) {
  static_cast<Loader*>(state)->start(text_of(name), reinterpret_cast<const char*>(uri), attributes,
                                     values);
}

void on_end(void* state, const xmlChar* /*name*/, const xmlChar* /*prefix*/,
            const xmlChar* /*uri*/) {
  static_cast<Loader*>(state)->end();
}

void on_text(void* state, const xmlChar* text, int length) {
  Loader& loader = *static_cast<Loader*>(state);
  if (loader.skipping > 0 || loader.stack.empty()) return;
  Element& element = loader.stack.back();
  if (!element.schema->is_leaf()) {
    // Only whether it is blank matters, and where it begins not to be.
    std::string_view more = trimmed({reinterpret_cast<const char*>(text), size_t(length)});
    if (element.text.empty()) element.text = more.substr(0, 1);
    return;
  }
  element.text.append(reinterpret_cast<const char*>(text), static_cast<size_t>(length));
  element.too_long = element.too_long || element.text.size() > 2 * yarrow::kMaxValueText;
  if (element.too_long) element.text.clear();
}

// The first is enough: what follows it is guesswork.
void on_error(void* state, xmlErrorPtr error) {
  Loader& loader = *static_cast<Loader*>(state);
  if (error == nullptr || error->level < XML_ERR_ERROR || error->code == XML_ERR_USER_STOP) return;
  std::string_view message = error->message != nullptr ? error->message : "unreadable";
  loader.fault({error->line, error->int2}, std::string(trimmed(message)));
  if (error->level == XML_ERR_FATAL) xmlStopParser(loader.parser);
}

void parse(Loader& loader, std::string_view text) {
  xmlSAXHandler handler = {};
  handler.initialized = XML_SAX2_MAGIC;
  handler.startElementNs = on_start;
  handler.endElementNs = on_end;
  handler.characters = on_text;
  handler.cdataBlock = on_text;
  handler.serror = on_error;
  xmlParserCtxtPtr parser = xmlCreateMemoryParserCtxt(text.data(), static_cast<int>(text.size()));
  if (parser == nullptr) {
    loader.fault({1, 1}, "no text");
    return;
  }
  loader.parser = parser;
  xmlSAXHandlerPtr own_handler = parser->sax;
  parser->sax = &handler;
  parser->userData = &loader;
  xmlCtxtUseOptions(parser, XML_PARSE_NONET | XML_PARSE_HUGE);
  int status = xmlParseDocument(parser);
  if (loader.depth() > kMaxDepth) {
    loader.fault({xmlSAX2GetLineNumber(parser), 0}, "elements nested too deep");
  }
  if (status != 0 && loader.fault_count == 0) loader.fault({1, 1}, "cannot be parsed");
  parser->sax = own_handler;
  if (parser->myDoc != nullptr) xmlFreeDoc(parser->myDoc);
  xmlFreeParserCtxt(parser);
}

std::string fault_lines(Loader& loader) {
  std::stable_sort(loader.faults.begin(), loader.faults.end(),
                   [](const Fault& a, const Fault& b) { return before(a.place, b.place); });
  std::string text;
  for (const Fault& fault : loader.faults) {
    if (!text.empty()) text += '\n';
    text += xml_place_text(fault.place) + fault.reason;
  }
  if (loader.fault_count > kMaxFaults) {
    text += "\nand " + std::to_string(loader.fault_count - kMaxFaults) + " more";
  }
  return text;
}

}  // namespace

std::string xml_place_text(XmlPlace place) {
  std::string text = "line " + std::to_string(place.line);
  if (place.column > 0) text += ":" + std::to_string(place.column);
  return text + ": ";
}

Result xml_load(const Schema& schema, std::string_view text, const SchemaNode& top_schema,
                const XmlRules& rules, XmlContent* content) {
  if (text.size() > yarrow::kMaxLoadText) return failed(YARROW_ERR_TOOBIG, "too much text");
  Loader loader(schema, rules);
  Element top;
  top.schema = &top_schema;
  loader.stack.push_back(std::move(top));
  int line = 0;
  if (const char* excess = xml_beyond_bounds(text, &line)) {
    loader.fault({line, 0}, excess);
  } else {
    parse(loader, text);
  }
  loader.stack.resize(1);
  auto node = std::make_shared<Node>();
  node->schema = &top_schema;
  loader.build(loader.stack.front().parts, *node, &content->operations);
  if (loader.fault_count > 0) return failed(YARROW_ERR_MALFORMED, fault_lines(loader));
  content->node = std::move(node);
  content->named = std::move(loader.named);
  return {};
}

}  // namespace agent
