// SPDX-License-Identifier: Apache-2.0
#include "agent/values.h"

#include <arpa/inet.h>

#include <charconv>

namespace agent {

namespace {

uint64_t unsigned_of(std::string_view text) {
  uint64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

int64_t signed_of(std::string_view text) {
  int64_t value = 0;
  std::from_chars(text.data(), text.data() + text.size(), value);
  return value;
}

void encode_address(int family, std::string_view text, yarrow::Writer& out) {
  uint8_t bytes[16] = {};
  inet_pton(family, std::string(text).c_str(), bytes);
  out.raw(bytes, family == AF_INET ? 4 : 16);
}

std::string address_text(int family, std::string_view bytes) {
  char text[INET6_ADDRSTRLEN] = "";
  size_t width = family == AF_INET ? 4 : 16;
  if (bytes.size() == width) inet_ntop(family, bytes.data(), text, sizeof text);
  return text;
}

// A union's value type is that of its IPv4 member; a colon tells the other.
uint32_t actual_type(const SchemaNode& leaf, std::string_view text) {
  bool is_v6 = text.find(':') != std::string_view::npos;
  if (leaf.value_type == C_IPV4 && is_v6) return C_IPV6;
  if (leaf.value_type == C_IPV4PREFIX && is_v6) return C_IPV6PREFIX;
  return leaf.value_type;
}

Result decode_one(const SchemaNode& leaf, uint32_t type, yarrow::Reader& in, std::string* text) {
  switch (type) {
    case C_XMLTAG:
      text->clear();
      break;
    case C_BUF:
      *text = in.text(yarrow::kMaxValueText);
      break;
    case C_INT8:
      *text = std::to_string(static_cast<int8_t>(in.u8()));
      break;
    case C_INT16:
      *text = std::to_string(static_cast<int16_t>(in.u16()));
      break;
    case C_INT32:
      *text = std::to_string(static_cast<int32_t>(in.u32()));
      break;
    case C_INT64:
      *text = std::to_string(static_cast<int64_t>(in.u64()));
      break;
    case C_UINT8:
      *text = std::to_string(in.u8());
      break;
    case C_UINT16:
      *text = std::to_string(in.u16());
      break;
    case C_UINT32:
      *text = std::to_string(in.u32());
      break;
    case C_UINT64:
      *text = std::to_string(in.u64());
      break;
    case C_IPV4:
      *text = address_text(AF_INET, in.raw(4));
      break;
    case C_IPV6:
      *text = address_text(AF_INET6, in.raw(16));
      break;
    case C_IPV4PREFIX:
    case C_IPV6PREFIX: {
      int family = type == C_IPV4PREFIX ? AF_INET : AF_INET6;
      *text = address_text(family, in.raw(family == AF_INET ? 4 : 16));
      *text += "/" + std::to_string(in.u8());
      break;
    }
    case C_BOOL:
      *text = in.u8() != 0 ? "true" : "false";
      break;
    case C_ENUM_VALUE: {
      uint32_t number = in.u32();
      for (const auto& [word, value] : leaf.enum_numbers) {
        if (value == number) *text = word;
      }
      if (text->empty()) {
        return failed(YARROW_ERR_BADVALUE,
                      leaf.path + ": no word has the number " + std::to_string(number));
      }
      break;
    }
    default:
      return failed(YARROW_ERR_BADVALUE, leaf.path + ": a value of no known type");
  }
  return in.ok() ? Result{} : failed(YARROW_ERR_PROTOCOL, "a value cut short");
}

}  // namespace

void value_encode(const SchemaNode& leaf, std::string_view text, yarrow::Writer& out) {
  uint32_t type = actual_type(leaf, text);
  out.u32(type);
  switch (type) {
    case C_XMLTAG:
      break;
    case C_INT8:
    case C_UINT8:
      out.u8(static_cast<uint8_t>(signed_of(text)));
      break;
    case C_INT16:
    case C_UINT16:
      out.u16(static_cast<uint16_t>(signed_of(text)));
      break;
    case C_INT32:
    case C_UINT32:
      out.u32(static_cast<uint32_t>(signed_of(text)));
      break;
    case C_INT64:
      out.u64(static_cast<uint64_t>(signed_of(text)));
      break;
    case C_UINT64:
      out.u64(unsigned_of(text));
      break;
    case C_IPV4:
      encode_address(AF_INET, text, out);
      break;
    case C_IPV6:
      encode_address(AF_INET6, text, out);
      break;
    case C_IPV4PREFIX:
    case C_IPV6PREFIX: {
      size_t slash = text.find('/');
      encode_address(type == C_IPV4PREFIX ? AF_INET : AF_INET6, text.substr(0, slash), out);
      out.u8(static_cast<uint8_t>(unsigned_of(text.substr(slash + 1))));
      break;
    }
    case C_BOOL:
      out.u8(text == "true" ? 1 : 0);
      break;
    case C_ENUM_VALUE: {
      auto word = leaf.enum_numbers.find(text);
      out.u32(word != leaf.enum_numbers.end() ? word->second : 0);
      break;
    }
    default:
      out.text(text);
  }
}

Result value_decode(const SchemaNode& leaf, yarrow::Reader& in, std::vector<std::string>* texts,
                    bool* absent) {
  texts->clear();
  uint32_t type = in.u32();
  *absent = type == C_NOEXISTS;
  if (*absent) return {};
  uint32_t count = type == C_LIST ? in.u32() : 1;
  if (count > yarrow::kMaxLeafListItems) {
    return failed(YARROW_ERR_TOOBIG, leaf.path + ": too many items");
  }
  for (uint32_t i = 0; i < count; ++i) {
    std::string text;
    Result result = decode_one(leaf, type == C_LIST ? in.u32() : type, in, &text);
    if (!result.ok()) return result;
    texts->push_back(std::move(text));
  }
  return {};
}

}  // namespace agent
