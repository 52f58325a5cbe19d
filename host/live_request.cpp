// SPDX-License-Identifier: Apache-2.0
#include "live_request.h"

#include <nlohmann/json.hpp>

namespace polctl {

namespace {

using nlohmann::json;

constexpr uint32_t kMagic = 0x504c4331;

void put(uint64_t number, size_t bytes, std::string* to) {
  for (size_t i = bytes; i-- > 0;) to->push_back(static_cast<char>(number >> (8 * i)));
}

uint64_t get(std::string_view bytes, size_t at, size_t count) {
  uint64_t number = 0;
  for (size_t i = 0; i < count; ++i) number = number << 8 | static_cast<uint8_t>(bytes[at + i]);
  return number;
}

// One list of members for both ways: Writer makes the object, Reader takes it apart.
struct Writer {
  json& object;
  template <typename Value>
  void member(const char* name, const Value& value) {
    object[name] = value;
  }
};

struct Reader {
  const json& object;
  bool good = true;

  void member(const char* name, std::string& value) {
    auto found = object.find(name);
    good = good && found != object.end() && found->is_string();
    if (good) value = found->get<std::string>();
  }
  void member(const char* name, bool& value) {
    auto found = object.find(name);
    good = good && found != object.end() && found->is_boolean();
    if (good) value = found->get<bool>();
  }
  void member(const char* name, uint32_t& value) {
    auto found = object.find(name);
    good = good && found != object.end() && found->is_number_unsigned() &&
           found->get<uint64_t>() <= UINT32_MAX;
    if (good) value = found->get<uint32_t>();
  }
};

template <typename Visitor, typename Options>
void members(Visitor* visitor, Options& options) {
  using Plain = std::remove_const_t<Options>;
  if constexpr (std::is_same_v<Plain, EvalOptions>) {
    visitor->member("policy", options.policy);
    visitor->member("kind", options.kind);
    visitor->member("direction", options.direction);
    visitor->member("routes", options.routes_name);
    visitor->member("json", options.json);
    visitor->member("explain", options.explain);
  } else if constexpr (std::is_same_v<Plain, DumpOptions>) {
    visitor->member("topic", options.topic);
  } else if constexpr (std::is_same_v<Plain, GraphOptions>) {
    visitor->member("format", options.format);
  } else if constexpr (std::is_same_v<Plain, DocumentOptions>) {
    visitor->member("pretty", options.pretty);
    visitor->member("show-data", options.show_data);
  } else {
    visitor->member("json", options.json);
  }
}

constexpr const char* kCommands[] = {"eval", "dump", "graph", "document", "labels"};

template <size_t kIndex = 0>
bool decode_as(const json& object, const std::string& command, LiveRequest* request) {
  if constexpr (kIndex < std::size(kCommands)) {
    if (command != kCommands[kIndex]) return decode_as<kIndex + 1>(object, command, request);
    Reader reader{object};
    members(&reader, request->options.emplace<kIndex>());
    return reader.good;
  } else {
    return false;
  }
}

}  // namespace

std::string encode(const RequestHead& head) {
  std::string bytes;
  put(kMagic, 4, &bytes);
  put(head.options_size, 4, &bytes);
  put(head.input_size, 4, &bytes);
  return bytes;
}

std::string encode(const AnswerHead& head) {
  std::string bytes;
  put(kMagic, 4, &bytes);
  put(head.status, 4, &bytes);
  put(head.error_size, 4, &bytes);
  put(head.output_size, 8, &bytes);
  return bytes;
}

bool decode(std::string_view bytes, RequestHead* head) {
  if (bytes.size() < RequestHead::kSize || get(bytes, 0, 4) != kMagic) return false;
  head->options_size = static_cast<uint32_t>(get(bytes, 4, 4));
  head->input_size = static_cast<uint32_t>(get(bytes, 8, 4));
  return head->options_size <= kMaxRequestOptions && head->input_size <= kMaxRequestInput;
}

bool decode(std::string_view bytes, AnswerHead* head) {
  if (bytes.size() < AnswerHead::kSize || get(bytes, 0, 4) != kMagic) return false;
  head->status = static_cast<uint32_t>(get(bytes, 4, 4));
  head->error_size = static_cast<uint32_t>(get(bytes, 8, 4));
  head->output_size = get(bytes, 12, 8);
  return true;
}

std::string encode_options(const LiveRequest& request) {
  json object;
  object["command"] = kCommands[request.options.index()];
  Writer writer{object};
  std::visit([&](const auto& options) { members(&writer, options); }, request.options);
  return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool decode_options(std::string_view text, LiveRequest* request) {
  json object = json::parse(text, nullptr, false);
  if (!object.is_object()) return false;
  auto command = object.find("command");
  if (command == object.end() || !command->is_string()) return false;
  return decode_as(object, command->get<std::string>(), request);
}

}  // namespace polctl
