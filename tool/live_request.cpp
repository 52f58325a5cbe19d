// SPDX-License-Identifier: Apache-2.0
#include "live_request.h"

#include <nlohmann/json.hpp>

namespace polctl {

namespace {

using nlohmann::json;

// One list of members for both ways: MemberWriter makes the object, MemberReader takes it apart.
struct MemberWriter {
  json& object;
  template <typename Value>
  void member(const char* name, const Value& value) {
    object[name] = value;
  }
};

struct MemberReader {
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
  void member(const char* name, std::vector<std::string>& value) {
    auto found = object.find(name);
    good = good && found != object.end() && found->is_array();
    for (size_t i = 0; good && i < found->size(); ++i) {
      good = (*found)[i].is_string();
      if (good) value.push_back((*found)[i].get<std::string>());
    }
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
  } else if constexpr (std::is_same_v<Plain, SearchOptions>) {
    visitor->member("policy", options.policy);
    visitor->member("kind", options.kind);
    visitor->member("direction", options.direction);
    visitor->member("action", options.action);
    visitor->member("sequence", options.sequence);
    visitor->member("where", options.where);
    visitor->member("limits", options.limits);
    visitor->member("all", options.all);
    visitor->member("json", options.json);
  } else if constexpr (std::is_same_v<Plain, ShowOptions>) {
    visitor->member("what", options.what);
    visitor->member("name", options.name);
    visitor->member("json", options.json);
  } else if constexpr (std::is_same_v<Plain, ClearOptions>) {
    visitor->member("what", options.what);
  } else if constexpr (std::is_same_v<Plain, TestOptions>) {
    visitor->member("names", options.names);
    visitor->member("sizes", options.sizes);
    visitor->member("direction", options.direction);
    visitor->member("format", options.format);
    visitor->member("explain", options.explain);
    visitor->member("coverage", options.coverage);
    visitor->member("limits", options.limits);
    visitor->member("routes", options.routes_name);
  } else {
    visitor->member("json", options.json);
  }
}

constexpr const char* kCommands[] = {"eval", "dump",  "graph", "document", "labels",
                                     "show", "clear", "test",  "search"};

template <size_t kIndex = 0>
bool decode_as(const json& object, const std::string& command, LiveRequest* request) {
  if constexpr (kIndex < std::size(kCommands)) {
    if (command != kCommands[kIndex]) return decode_as<kIndex + 1>(object, command, request);
    MemberReader reader{object};
    members(&reader, request->options.emplace<kIndex>());
    return reader.good;
  } else {
    return false;
  }
}

}  // namespace

std::string encode_options(const LiveRequest& request) {
  json object;
  object["command"] = kCommands[request.options.index()];
  MemberWriter writer{object};
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
