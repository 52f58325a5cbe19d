// SPDX-License-Identifier: Apache-2.0
#include "exchange/pol_xml_bounds.h"

#include <libxml/SAX2.h>
#include <libxml/dict.h>
#include <strings.h>

namespace {

using std::string_view;

// Takes a comment, CDATA section or instruction off the front of what follows a '<', if it is one.
// One that does not end is the rest of the text, which the parser then refuses.
bool skip_other(string_view* text) {
  static constexpr struct {
    string_view open;
    string_view close;
  } kOthers[] = {{"!--", "-->"}, {"![CDATA[", "]]>"}, {"?", "?>"}};
  for (const auto& other : kOthers) {
    if (!text->starts_with(other.open)) continue;
    const size_t end = text->find(other.close, other.open.size());
    text->remove_prefix(end != string_view::npos ? end + other.close.size() : text->size());
    return true;
  }
  return false;
}

// Takes a tag off the front, '<' already gone. Each attribute has one '=' outside of quotes.
bool skip_tag(string_view* text) {
  size_t attributes = 0;
  char quote = '\0';
  for (size_t at = 0; at < text->size(); ++at) {
    if (at == pol::kMaxTagBytes) return false;
    const char c = (*text)[at];
    if (quote != '\0') {
      if (c == quote) quote = '\0';
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '=') {
      if (++attributes > pol::kMaxAttributes) return false;
    } else if (c == '>') {
      text->remove_prefix(at + 1);
      return true;
    }
  }
  text->remove_prefix(text->size());
  return true;
}

bool of_ascii_bytes(const xmlChar* encoding) {
  if (encoding == nullptr) return true;
  const auto* name = reinterpret_cast<const char*>(encoding);
  return strcasecmp(name, "utf-8") == 0 || strcasecmp(name, "us-ascii") == 0 ||
         strncasecmp(name, "iso-8859-", 9) == 0;
}

void stop(void* parser) {
  static_cast<xmlParserCtxt*>(parser)->wellFormed = 0;
  xmlStopParser(static_cast<xmlParserCtxt*>(parser));
}

bool bounded(void* parser) {
  const auto* state = static_cast<const xmlParserCtxt*>(parser);
  // The parser counts a prefix and a name for each namespace.
  if (state->nsNr <= 2 * pol::kMaxNamespaces &&
      static_cast<size_t>(xmlDictSize(state->dict)) <= pol::kMaxXmlNames) {
    return true;
  }
  stop(parser);
  return false;
}

// Behind the declaration of the encoding.
void start_document(void* parser) {
  const auto* state = static_cast<const xmlParserCtxt*>(parser);
  if (!of_ascii_bytes(state->encoding) || !of_ascii_bytes(state->input->encoding)) stop(parser);
  xmlSAX2StartDocument(parser);
}

// A DOCTYPE has no place in policy and is what entity bombs and reads of files are made of.
void refuse_doctype(void* parser, const xmlChar* /*name*/, const xmlChar* /*external_id*/,
                    const xmlChar* /*system_id*/) {
  stop(parser);
}

void start_element(void* parser, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri,
                   int namespaces, const xmlChar** namespace_pairs, int attributes, int defaulted,
                   const xmlChar** attribute_parts) {
  if (!bounded(parser)) return;
  xmlSAX2StartElementNs(parser, name, prefix, uri, namespaces, namespace_pairs, attributes,
                        defaulted, attribute_parts);
}

void characters(void* parser, const xmlChar* text, int length) {
  if (bounded(parser)) xmlSAX2Characters(parser, text, length);
}

void instruction(void* parser, const xmlChar* target, const xmlChar* data) {
  if (bounded(parser)) xmlSAX2ProcessingInstruction(parser, target, data);
}

}  // namespace

bool pol::xml_tags_bounded(string_view text) {
  constexpr string_view kByteOrder = "\xef\xbb\xbf";
  if (text.starts_with(kByteOrder)) text.remove_prefix(kByteOrder.size());
  constexpr string_view kFirst = "< \t\r\n";
  if (text.size() < 2 || text[1] == '\0' || kFirst.find(text[0]) == string_view::npos) return false;
  for (size_t at = 0; (at = text.find('<')) != string_view::npos;) {
    text.remove_prefix(at + 1);
    if (!skip_other(&text) && !skip_tag(&text)) return false;
  }
  return true;
}

void pol::xml_parser_bound(xmlParserCtxt* parser) {
  // Or it goes on behind a fault, where quotes no longer part what the tags' bounds took them to
  // part.
  parser->sax->serror = [](void* at, auto* error) {
    if (error->level == XML_ERR_FATAL) stop(at);
  };
  parser->sax->startDocument = start_document;
  parser->sax->internalSubset = refuse_doctype;
  parser->sax->startElementNs = start_element;
  parser->sax->characters = characters;
  parser->sax->ignorableWhitespace = characters;
  parser->sax->processingInstruction = instruction;
}
