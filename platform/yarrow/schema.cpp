// SPDX-License-Identifier: Apache-2.0
#include "platform/yarrow/schema.h"

#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/yarrow/client.h"

namespace {

using yarrow::Reader;
using yarrow::Writer;

constexpr uint32_t kMaxNodes = 1u << 20;

using yarrow::LoadedSchema;

std::mutex g_lock;
std::atomic<const LoadedSchema*> g_schema = nullptr;  // set once, never freed

bool add_node(LoadedSchema& schema, std::vector<t_yarrow_cs_node*>& last_children, Reader& in) {
  t_yarrow_cs_node node = {};
  node.name = schema.texts.emplace_back(in.text()).c_str();
  node.prefix = schema.texts.emplace_back(in.text()).c_str();
  node.tag = in.u32();
  node.ns = in.u32();
  node.kind = in.u32();
  node.type = in.u32();
  node.key_count = in.u32();
  node.is_state = in.u32();
  uint32_t parent = in.u32();  // one more than its position; 0: none
  if (!in.ok() || parent > schema.nodes.size()) return false;
  schema.nodes.push_back(node);
  t_yarrow_cs_node* made = &schema.nodes.back();
  if (parent > 0) {
    t_yarrow_cs_node& above = schema.nodes[parent - 1];
    made->parent = &above;
    if (above.children == nullptr) above.children = made;
  }
  if (last_children[parent] != nullptr) last_children[parent]->next = made;
  last_children[parent] = made;
  return true;
}

const t_yarrow_cs_node* child_by_name(const t_yarrow_cs_node* first, std::string_view prefix,
                                      std::string_view name) {
  for (; first != nullptr; first = first->next) {
    if (name == first->name && (prefix.empty() || prefix == first->prefix)) return first;
  }
  return nullptr;
}

// Takes the next step off the front of a path, its keys dropped. False at the end or at no step.
bool next_step(std::string_view* path, std::string_view* prefix, std::string_view* name) {
  if (path->empty() || path->front() != '/') return false;
  path->remove_prefix(1);
  *name = path->substr(0, path->find_first_of("/{"));
  path->remove_prefix(name->size());
  if (!path->empty() && path->front() == '{') {
    bool quoted = false;
    size_t at = 1;
    for (; at < path->size() && (quoted || (*path)[at] != '}'); ++at) {
      if ((*path)[at] == '"') quoted = !quoted;
      if (quoted && (*path)[at] == '\\') ++at;
    }
    path->remove_prefix(at < path->size() ? at + 1 : path->size());
  }
  size_t colon = name->find(':');
  *prefix = colon == std::string_view::npos ? std::string_view() : name->substr(0, colon);
  if (colon != std::string_view::npos) name->remove_prefix(colon + 1);
  return !name->empty();
}

// The node below `start`, which may be null for the top, of the schema that was loaded.
const t_yarrow_cs_node* find_node(const t_yarrow_cs_node* start, std::string_view path) {
  const LoadedSchema* schema = g_schema.load(std::memory_order_acquire);
  const t_yarrow_cs_node* at = start;
  const t_yarrow_cs_node* first = start != nullptr ? start->children : &schema->nodes.front();
  std::string_view prefix;
  std::string_view name;
  while (!path.empty()) {
    at = next_step(&path, &prefix, &name) ? child_by_name(first, prefix, name) : nullptr;
    if (at == nullptr) return nullptr;
    first = at->children;
  }
  return at;
}

}  // namespace

int yarrow_load_schemas(const struct sockaddr* addr, socklen_t addr_len) try {
  const std::lock_guard<std::mutex> guard(g_lock);
  if (g_schema.load(std::memory_order_acquire) != nullptr) return YARROW_OK;
  const yarrow::Descriptor sock(
      socket(addr != nullptr ? addr->sa_family : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (sock.get() < 0) return yarrow::fail_os("socket");
  auto schema = std::make_unique<LoadedSchema>();
  int status =
      yarrow::connect_socket(sock.get(), addr, addr_len, yarrow::SocketKind::kMaapi, Writer());
  if (status == YARROW_OK) status = yarrow::fetch_schema(sock.get(), *schema);
  if (status == YARROW_OK) g_schema.store(schema.release(), std::memory_order_release);
  return status;
} catch (const std::bad_alloc&) {
  return yarrow::fail_no_memory();
}

const t_yarrow_cs_node* yarrow_cs_node_cd(const t_yarrow_cs_node* start, const char* format,
                                          ...) try {
  if (g_schema.load(std::memory_order_acquire) == nullptr) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(YARROW_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (yarrow_load_schemas(reinterpret_cast<sockaddr*>(&address), sizeof address) != YARROW_OK) {
      if (yarrow_errno == YARROW_ERR_OS) {
        yarrow::fail(YARROW_ERR_NOTCONNECTED, std::string(yarrow_lasterr()));
      }
      return nullptr;
    }
  }
  Writer text;
  va_list args;
  va_start(args, format);
  bool good = yarrow::add_path(text, format, args);
  va_end(args);
  if (!good) return nullptr;
  std::string_view path = yarrow::Reader(text.bytes()).text();
  if (start == nullptr && path == "/")
    return &g_schema.load(std::memory_order_acquire)->nodes.front();
  const t_yarrow_cs_node* found = find_node(start, path);
  if (found == nullptr) yarrow::fail(YARROW_ERR_BADPATH, "no such path");
  return found;
} catch (const std::bad_alloc&) {
  yarrow::fail_no_memory();
  return nullptr;
}

namespace yarrow {

int fetch_schema(int sock, LoadedSchema& schema) {
  std::vector<t_yarrow_cs_node*> last_children;  // by parent, 0: the top
  uint32_t total = 1;
  while (schema.nodes.size() < total) {
    Writer out;
    out.u32(static_cast<uint32_t>(schema.nodes.size()));
    std::string content;
    if (yarrow::call(sock, yarrow::Request::kSchema, out, &content) != YARROW_OK) return YARROW_ERR;
    Reader in(content);
    total = in.u32();
    bool good = total > 0 && total <= kMaxNodes && in.left() > 0;
    if (good && last_children.empty()) {
      last_children.resize(total + 1);
      schema.nodes.reserve(total);  // pointers to nodes are kept
    }
    good = good && last_children.size() == total + 1;
    while (good && in.left() > 0) {
      good = schema.nodes.size() < total && add_node(schema, last_children, in);
    }
    if (!good) return yarrow::fail(YARROW_ERR_PROTOCOL, "a schema that makes no sense");
  }
  return YARROW_OK;
}

const t_yarrow_cs_node* schema_node(std::string_view path) {
  bool loaded = g_schema.load(std::memory_order_acquire) != nullptr;
  return loaded ? find_node(nullptr, path) : nullptr;
}

}  // namespace yarrow
