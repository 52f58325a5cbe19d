// SPDX-License-Identifier: Apache-2.0
//
// The pass must never see less markup than the parser will. A parser goes on after many an error, at
// a place of its own choice, so that an error which could hide markup from the pass is refused here.
#include "agent/xml_bounds.h"

#include <strings.h>
#include <sys/auxv.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace agent {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
constexpr size_t kNameBits = size_t{1} << 16;
constexpr char kStrayOpening[] = "a '<' inside a tag";

// Counts distinct names as bits of a keyed hash: too few to matter are counted too low, and nobody
// outside can choose names that fall together.
struct Names {
  uint64_t key[2] = {};
  uint64_t bits[kNameBits / 64] = {};
  size_t count = 0;

  Names() {
    // Sixteen random bytes that the kernel gives every process.
    unsigned long random = getauxval(AT_RANDOM);
    if (random != 0) memcpy(key, reinterpret_cast<const void*>(random), sizeof key);
  }
  void add(std::string_view name);
};

// Both factors depend on the key.
uint64_t mixed(uint64_t a, uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  Wide product = static_cast<Wide>(a) * b;
  return static_cast<uint64_t>(product) ^ static_cast<uint64_t>(product >> 64);
}

void Names::add(std::string_view name) {
  uint64_t hash = mixed(key[0] ^ name.size(), key[1] | 1);
  while (!name.empty()) {
    uint64_t part = 0;
    size_t size = std::min(name.size(), sizeof part);
    memcpy(&part, name.data(), size);
    name.remove_prefix(size);
    hash = mixed(hash ^ part ^ key[0], hash + key[1]);
  }
  uint64_t& word = bits[hash % kNameBits / 64];
  uint64_t bit = uint64_t{1} << hash % 64;
  if ((word & bit) == 0) ++count;
  word |= bit;
}

struct Pass {
  std::string_view text;
  size_t at = 0;  // the '<' in hand
  size_t depth = 0;
  size_t in_scope = 0;                  // namespaces declared by the elements that are open
  uint8_t declared[kXmlMaxDepth] = {};  // by each of them
  Names names;

  const char* markup();
  const char* start_tag();
  const char* attribute(std::string_view name, std::string_view value, size_t* count,
                        uint8_t* namespaces);
  // Moves behind the next `end` that is `from` bytes away or further, or to the end of the text.
  void skip(size_t from, std::string_view end) {
    size_t found = text.find(end, at + from);
    at = found == std::string_view::npos ? text.size() : found + end.size();
  }
};

const char* Pass::attribute(std::string_view name, std::string_view value, size_t* count,
                            uint8_t* namespaces) {
  if (++*count > kXmlMaxAttributes) return "a tag with more than 64 attributes";
  names.add(name);
  if (name != "xmlns" && name.substr(0, 6) != "xmlns:") return nullptr;
  names.add(value);
  ++*namespaces;
  if (++in_scope > kXmlMaxNamespaces) return "more than 64 namespaces in force";
  return nullptr;
}

const char* Pass::start_tag() {
  std::string_view tag = text.substr(at + 1, kXmlMaxTagBytes - 1);
  size_t end = tag.find_first_of(" \t\r\n/>");
  names.add(tag.substr(0, end));
  size_t attributes = 0;
  uint8_t namespaces = 0;
  size_t name_begin = std::string_view::npos;
  size_t name_end = 0;
  for (size_t i = std::min(end, tag.size()); i < tag.size(); ++i) {
    char c = tag[i];
    if (c == '<') return kStrayOpening;
    if (c == '>') {
      at += i + 2;
      if (tag[i - (i > 0)] == '/') {
        in_scope -= namespaces;
        return nullptr;
      }
      if (depth == kXmlMaxDepth) return "elements nested too deep";
      declared[depth++] = namespaces;
      return nullptr;
    }
    if (c == '"' || c == '\'') {
      size_t close = tag.find(c, i + 1);
      if (tag.substr(i, close - i).find('<') != std::string_view::npos) return kStrayOpening;
      if (close == std::string_view::npos) break;
      std::string_view name;
      if (name_begin < name_end) name = tag.substr(name_begin, name_end - name_begin);
      const char* fault =
          attribute(name, tag.substr(i + 1, close - i - 1), &attributes, &namespaces);
      if (fault != nullptr) return fault;
      name_begin = std::string_view::npos;
      i = close;
    } else if (c != '=' && c != '/' && kBlanks.find(c) == std::string_view::npos) {
      if (name_begin == std::string_view::npos) name_begin = i;
      name_end = i + 1;
    }
  }
  if (tag.size() == kXmlMaxTagBytes - 1) return "a tag of more than 16384 bytes";
  at = text.size();  // cut short: the parser will say so
  return nullptr;
}

const char* Pass::markup() {
  std::string_view rest = text.substr(at, 9);
  if (rest.substr(0, 4) == "<!--") {
    skip(4, "-->");
  } else if (rest == "<![CDATA[") {
    skip(9, "]]>");
  } else if (rest.substr(0, 2) == "<!") {
    return "a document type is not allowed";
  } else if (rest.substr(0, 2) == "<?") {
    std::string_view target = text.substr(at + 2, kXmlMaxTagBytes);
    target = target.substr(0, target.find_first_of(" \t\r\n?<"));
    if (target.empty()) return "a processing instruction without a name";
    names.add(target);
    skip(2, "?>");
  } else if (rest.substr(0, 2) == "</") {
    if (depth > 0) in_scope -= declared[--depth];
    size_t end = text.find_first_of("<>", at + 1);
    if (end != std::string_view::npos && text[end] == '<') return kStrayOpening;
    skip(2, ">");
  } else {
    return start_tag();
  }
  return nullptr;
}

bool is_word(std::string_view text, const char* word) {
  return text.size() == strlen(word) && strncasecmp(text.data(), word, text.size()) == 0;
}

// The parser believes a declaration of another encoding.
bool declares_utf8(std::string_view text) {
  if (text.substr(0, 3) == "\xef\xbb\xbf") text.remove_prefix(3);
  if (text.substr(0, 5) != "<?xml") return true;
  std::string_view declaration = text.substr(0, text.find("?>"));
  size_t at = declaration.find("encoding");
  if (at == std::string_view::npos) return true;
  size_t open = declaration.find_first_of("\"'", at);
  if (open == std::string_view::npos) return true;
  std::string_view name = declaration.substr(open + 1);
  name = name.substr(0, name.find(declaration[open]));
  return is_word(name, "UTF-8") || is_word(name, "US-ASCII");
}

// The length of the character at the front; 0 if it is none that XML can carry.
size_t character_length(std::string_view text) {
  auto byte = [&](size_t i) { return i < text.size() ? static_cast<uint8_t>(text[i]) : 0u; };
  unsigned first = byte(0);
  if (first < 0x80) return first >= 0x20 || first == '\t' || first == '\n' || first == '\r' ? 1 : 0;
  size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  uint32_t code = first & (0xffu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3f);
  }
  constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  bool other = code >= 0xd800 && code < 0xe000;  // halves of UTF-16
  bool good = first >= 0xc2 && first < 0xf5 && code >= kLeast[length] && code <= 0x10ffff &&
              !other && code != 0xfffe && code != 0xffff;
  return good ? length : 0;
}

// Where the text stops being one that XML can carry; its size if it does not.
size_t text_end(std::string_view text) {
  size_t at = 0;
  while (at < text.size()) {
    size_t length = character_length(text.substr(at, 4));
    if (length == 0) break;
    at += length;
  }
  return at;
}

}  // namespace

bool is_xml_text(std::string_view text) { return text_end(text) == text.size(); }

const char* xml_beyond_bounds(std::string_view text, int* line) {
  Pass pass;
  pass.text = text;
  size_t begin = text_end(text);
  const char* fault = begin < text.size() ? "bytes that are no UTF-8 text" : nullptr;
  if (fault == nullptr && !declares_utf8(text)) {
    begin = 0;
    fault = "an encoding other than UTF-8";
  }
  while (fault == nullptr) {
    begin = pass.at = text.find('<', pass.at);
    if (begin == std::string_view::npos) return nullptr;
    fault = pass.markup();
    if (fault == nullptr && pass.names.count > kXmlMaxNames)
      fault = "more than 2048 distinct names";
  }
  begin = std::min(begin, text.size());
  *line = 1 + static_cast<int>(
                  std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(begin), '\n'));
  return fault;
}

}  // namespace agent
