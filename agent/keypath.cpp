// SPDX-License-Identifier: Apache-2.0
#include "agent/keypath.h"

#include "platform/yarrow/wire.h"

namespace agent {

namespace {

constexpr size_t kMaxSteps = 64;

struct Cursor {
  std::string_view text;
  size_t at = 0;

  bool end() const { return at >= text.size(); }
  char peek() const { return end() ? '\0' : text[at]; }
  void skip_blanks() {
    while (peek() == ' ') ++at;
  }
};

// One key: bare up to a blank or the closing brace, or in double quotes.
bool read_key(Cursor& cursor, std::string* key) {
  key->clear();
  if (cursor.peek() != '"') {
    while (!cursor.end() && cursor.peek() != ' ' && cursor.peek() != '}') {
      if (cursor.peek() == '{' || cursor.peek() == '"') return false;
      key->push_back(cursor.text[cursor.at++]);
    }
    return !key->empty();
  }
  for (++cursor.at; !cursor.end(); ++cursor.at) {
    char byte = cursor.peek();
    if (byte == '"') {
      ++cursor.at;
      return cursor.peek() == ' ' || cursor.peek() == '}';
    }
    if (byte == '\\') {
      ++cursor.at;
      if (cursor.end()) return false;
      byte = cursor.peek();
    }
    key->push_back(byte);
  }
  return false;
}

Result read_keys(const Schema& schema, Cursor& cursor, Step* step) {
  const SchemaNode& list = *step->schema;
  ++cursor.at;
  cursor.skip_blanks();
  while (cursor.peek() != '}') {
    std::string key;
    if (cursor.end() || !read_key(cursor, &key)) {
      return failed(YARROW_ERR_BADPATH, list.path + ": keys that cannot be read");
    }
    if (step->keys.size() == list.key_count) {
      return failed(YARROW_ERR_BADPATH, list.path + ": too many keys");
    }
    std::string canonical;
    std::string reason;
    const SchemaNode& leaf = *list.children[step->keys.size()];
    if (!schema_canonical(schema, leaf, key, &canonical, &reason)) {
      return failed(YARROW_ERR_BADPATH, leaf.path + ": " + reason);
    }
    step->keys.push_back(std::move(canonical));
    cursor.skip_blanks();
  }
  ++cursor.at;
  if (step->keys.size() != list.key_count) {
    return failed(YARROW_ERR_BADPATH, list.path + ": too few keys");
  }
  return {};
}

}  // namespace

Result path_parse(const Schema& schema, std::string_view text, Path* path) {
  path->clear();
  if (text.size() > yarrow::kMaxPath) return failed(YARROW_ERR_TOOBIG, "a path too long");
  if (text.empty() || text == "/") return {};
  const SchemaNode* parent = &schema.root;
  Cursor cursor{text};
  while (!cursor.end()) {
    if (cursor.peek() != '/') return failed(YARROW_ERR_BADPATH, "a path that cannot be read");
    if (path->size() == kMaxSteps) return failed(YARROW_ERR_BADPATH, "a path too deep");
    bool inside_list = !path->empty() && path->back().schema->kind == YARROW_NODE_LIST;
    if (inside_list && path->back().keys.empty()) {
      return failed(YARROW_ERR_BADPATH, parent->path + ": keys are missing");
    }
    size_t begin = ++cursor.at;
    while (!cursor.end() && cursor.peek() != '/' && cursor.peek() != '{') ++cursor.at;
    std::string_view name = text.substr(begin, cursor.at - begin);
    size_t colon = name.find(':');
    std::string_view prefix = colon == std::string_view::npos ? "" : name.substr(0, colon);
    if (colon != std::string_view::npos) name.remove_prefix(colon + 1);
    const SchemaNode* node = schema_child(*parent, name);
    if (node == nullptr || (!prefix.empty() && prefix != node->prefix)) {
      return failed(YARROW_ERR_BADPATH, parent->path + "/" + std::string(name) + ": no such path");
    }
    path->push_back({node, {}});
    if (cursor.peek() == '{') {
      if (node->kind != YARROW_NODE_LIST) {
        return failed(YARROW_ERR_BADPATH, node->path + ": takes no keys");
      }
      Result result = read_keys(schema, cursor, &path->back());
      if (!result.ok()) return result;
    }
    parent = node;
  }
  return {};
}

void path_append(std::string& text, const SchemaNode& schema, const Keys& keys) {
  text += '/';
  text += schema.name;
  if (keys.empty()) return;
  text += '{';
  for (const std::string& key : keys) {
    if (&key != &keys.front()) text += ' ';
    if (!key.empty() && key.find_first_of(" {}\"\\") == std::string::npos) {
      text += key;
      continue;
    }
    text += '"';
    for (char byte : key) {
      if (byte == '"' || byte == '\\') text += '\\';
      text += byte;
    }
    text += '"';
  }
  text += '}';
}

std::string path_text(const Path& path) {
  std::string text;
  for (const Step& step : path) path_append(text, *step.schema, step.keys);
  return text.empty() ? "/" : text;
}

}  // namespace agent
