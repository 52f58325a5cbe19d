// SPDX-License-Identifier: Apache-2.0
// The cache of the agent's XML text. The lock guards the tree and the texts; its failures are
// logged and the operation is skipped, never tried again. Nothing is logged while it is held: a log
// that stands still would have the other side spin.
#include "exchange/pol_xml_config_internal.h"

#include <algorithm>
#include <cstring>

#include "base/pol_dump_title.h"
#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "core/pol_context_internal.h"
#include "policy/pol_dump.h"
#include "policy/pol_fwd_document.h"

const char* const pol_fwd_type2headerstr[POL_XML_TYPES] = {
    "",
    "<data-policy>",
    "<app-route-policy>",
    "<cflowd-template>",
    "<vpn-list>",
    "<tloc-list>",
    "<data-prefix-list>",
    "<data-ipv6-prefix-list>",
    "<sla-class>",
    "<policer>",
    "<app-list>",
};

// On purpose: a data policy's footer starts with its own closing tag, which the document's assembly
// writes itself; the other kinds keep theirs.
const char* const pol_fwd_type2footerstr[POL_XML_TYPES] = {
    "",
    "</data-policy></policy></config>",
    "</policy></config>",
    "</policy></config>",
    "</lists>",
    "</lists>",
    "</lists>",
    "</lists>",
    "</policy></config>",
    "</policy></config>",
    "</lists>",
};

namespace {

struct XmlKey {
  int32_t type;
  char name[POL_NAME_SIZE];
};
static_assert(offsetof(t_pol_xml_config, name) - offsetof(t_pol_xml_config, type) ==
              offsetof(XmlKey, name));

XmlKey key_of(int32_t type, const char* name) {
  XmlKey key = {type, {}};
  pol::copy_name(key.name, name);
  return key;
}

int xml_compare(const void* key, const void* node) {
  const auto* a = static_cast<const XmlKey*>(key);
  const auto* b = static_cast<const t_pol_xml_config*>(node);
  if (a->type != b->type) return a->type < b->type ? -1 : 1;
  return pol::sign(strncmp(a->name, b->name, POL_NAME_SIZE));
}

void free_config(t_pol_xml_config* config) {
  pol_free(config->text, pol::MEM_CONFIG_XML);
  pol_free(config, pol::MEM_POLICY_CONFIG);
}

t_pol_xml_config* create(t_pol_ctx* ctx, const XmlKey& key, avl_index where) {
  auto* config = pol::alloc<t_pol_xml_config>(pol::MEM_POLICY_CONFIG);
  if (config == nullptr) return nullptr;
  config->type = key.type;
  memcpy(config->name, key.name, sizeof key.name);
  ctx->xml_configs.insert(config, where);
  return config;
}

bool set_text(t_pol_xml_config* config, std::string_view text) {
  pol_free(config->text, pol::MEM_CONFIG_XML);
  config->text = nullptr;
  config->size = 0;
  // A text of which no document could be made counts as one that there is no memory for.
  if (text.size() < INT32_MAX) {
    config->text = static_cast<char*>(pol_malloc(text.size() + 1, pol::MEM_CONFIG_XML));
  }
  if (config->text == nullptr) return false;
  memcpy(config->text, text.data(), text.size());
  config->text[text.size()] = '\0';
  config->size = static_cast<uint32_t>(text.size());
  return true;
}

void note_fetch(t_pol_fetch_time* time, time_t start, time_t end) {
  time->start = start;
  time->end = end;
  time->longest = std::max(time->longest, static_cast<int32_t>(end - start));
}

bool lock(t_pol_ctx* ctx) {
  int error = pol::xml_lock(ctx);
  if (error != 0) POL_LOG("Lock error on xml config tree (error:%d)\n", error);
  return error == 0;
}

int unlock(t_pol_ctx* ctx) {
  int error = pthread_spin_unlock(&ctx->xml_lock);
  if (error != 0) POL_LOG("Unlock error on xml config tree (error:%d)\n", error);
  return error;
}

// Hands on an object's text, if there is one, to what appends it; the text may be replaced as soon
// as the cache is unlocked.
template <class Append>
uint32_t append_text(int32_t type, const char* name, Append append) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr || name == nullptr) return POL_OK;
  const XmlKey key = key_of(type, name);
  POL_LOG_AT(3, "Get xml config for policy %s of type %d\n", key.name, type);
  if (!lock(ctx)) return POL_ELOCK;
  uint32_t status = POL_OK;
  const t_pol_xml_config* config = ctx->xml_configs.find(&key);
  if (config != nullptr && config->text != nullptr) status = append({config->text, config->size});
  const int error = unlock(ctx);
  // On purpose the number is always 0.
  if (status != POL_OK) POL_LOG("Could not append policy (error:%d)\n", 0);
  return status != POL_OK ? status : static_cast<uint32_t>(error);
}

bool pieces_grow(pol::XmlPieces* pieces) {
  const size_t room = pieces->room * 2;
  auto* grown =
      static_cast<const t_pol_xml_config**>(pol_realloc(pieces->items, room * sizeof(void*)));
  if (grown == nullptr) return false;
  pieces->items = grown;
  pieces->room = room;
  return true;
}

// Shows the texts to `look`, several while the cache is locked, yet never so long that the worker
// waits.
template <class Look>
uint32_t each_text(const pol::XmlPieces& pieces, Look look) {
  constexpr size_t kAtOnce = 64 * 1024;
  constexpr size_t kTextCost = 64;
  t_pol_ctx* ctx = g_pol_ctx_p;
  for (size_t i = 0; i < pieces.count;) {
    if (!lock(ctx)) return POL_ELOCK;
    for (size_t cost = 0; i < pieces.count && cost < kAtOnce; ++i) {
      constexpr size_t kAhead = 8;
      __builtin_prefetch(&pieces.items[std::min(i + kAhead, pieces.count - 1)]->text);
      const t_pol_xml_config& config = *pieces.items[i];
      if (config.text != nullptr) look(std::string_view(config.text, config.size), i);
      cost += kTextCost + config.size;
    }
    const int error = unlock(ctx);
    if (error != 0) return static_cast<uint32_t>(error);
  }
  return POL_OK;
}

}  // namespace

t_pol_fetch_time pol::xml_fetch_time(int32_t type, const char* name) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr || name == nullptr || !lock(ctx)) return {};
  XmlKey key = key_of(type, name);
  const t_pol_xml_config* config = ctx->xml_configs.find(&key);
  t_pol_fetch_time time = config != nullptr ? config->fetched : t_pol_fetch_time{};
  unlock(ctx);
  return time;
}

bool pol::xml_config_store(t_pol_ctx* ctx, int32_t type, const char* name, std::string_view text,
                           time_t start) {
  POL_LOG_AT(3, "Set xml config for policy %s of type %d (str:%.*s)\n", name, type,
             static_cast<int>(text.size()), text.data());
  if (ctx == nullptr || !lock(ctx)) return true;
  XmlKey key = key_of(type, name);
  t_pol_xml_config* config = ctx->xml_configs.find(&key);
  bool stored = config == nullptr || set_text(config, text);
  if (config != nullptr && stored) note_fetch(&config->fetched, start, time(nullptr));
  unlock(ctx);
  if (!stored) POL_LOG("Could not allocate memory\n");
  return stored;
}

uint32_t pol_xml_config_init(t_pol_ctx* ctx) {
  if (ctx == nullptr) return POL_ENOCTX;
  ctx->xml_configs.create(xml_compare, offsetof(t_pol_xml_config, link));
  int error = pthread_spin_init(&ctx->xml_lock, PTHREAD_PROCESS_PRIVATE);
  ctx->xml_lock_made = error == 0 ? 1 : 0;
  if (error == 0) return POL_OK;
  POL_LOG_ALWAYS("Failed to init spinlock for XML config (error %d)\n", error);
  return POL_ESPINLOCK;
}

uint32_t pol_xml_config_deinit(t_pol_ctx* ctx) {
  if (ctx == nullptr) return POL_ENOCTX;
  if (ctx->xml_lock_made == 0) return POL_OK;  // nothing was ever kept
  if (lock(ctx)) {
    void* cookie = nullptr;
    while (t_pol_xml_config* config = ctx->xml_configs.drain(&cookie)) free_config(config);
    unlock(ctx);
    ctx->xml_configs.destroy();
  }
  int error = pthread_spin_destroy(&ctx->xml_lock);
  if (error != 0) POL_LOG("Failed to destroy spinlock for XML config (error %d)\n", error);
  return static_cast<uint32_t>(error);
}

t_pol_xml_config* pol_xml_config_find_or_create(int32_t type, const char* name) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr || name == nullptr) return nullptr;
  XmlKey key = key_of(type, name);
  if (!lock(ctx)) return nullptr;
  avl_index where = 0;
  t_pol_xml_config* config = ctx->xml_configs.find(&key, &where);
  const bool found = config != nullptr;
  if (!found) config = create(ctx, key, where);
  unlock(ctx);
  if (!found && config != nullptr) {
    POL_LOG_AT(3, "Create xml config entry for policy %s of type %d\n", key.name, type);
  }
  return config;
}

void pol_xml_config_find_and_delete(int32_t type, const char* name) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr || name == nullptr) return;
  XmlKey key = key_of(type, name);
  POL_LOG_AT(3, "Delete xml config entry for policy %s of type %d\n", key.name, type);
  if (!lock(ctx)) return;
  t_pol_xml_config* config = ctx->xml_configs.find(&key);
  if (config != nullptr) {
    ctx->xml_configs.remove(config);
    ++ctx->xml_generation;
    free_config(config);
  }
  unlock(ctx);
}

uint32_t pol_xml_config_get_str(int32_t type, const char* name, char** buffer, uint32_t* room) {
  return append_text(type, name, [=](std::string_view text) {
    return pol_fwd_policy_append(text.data(), static_cast<int32_t>(text.size()), buffer, room);
  });
}

uint32_t pol::xml_config_append(int32_t type, const char* name, XmlText* text) {
  return append_text(type, name,
                     [=](std::string_view more) { return xml_text_append(text, more); });
}

uint32_t pol::xml_pieces_init(XmlPieces* pieces) {
  constexpr size_t kInitialRoom = 256;
  *pieces = {};
  pieces->items =
      static_cast<const t_pol_xml_config**>(pol_malloc(kInitialRoom * sizeof(void*), MEM_PEER_XML));
  if (pieces->items == nullptr) return POL_ENOMEM;
  pieces->room = kInitialRoom;
  return POL_OK;
}

void pol::xml_pieces_free(XmlPieces* pieces) {
  pol_free(pieces->items, MEM_PEER_XML);
  *pieces = {};
}

uint32_t pol::xml_pieces_append(int32_t type, const char* name, XmlRef* known, XmlPieces* pieces) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr) return POL_OK;
  POL_LOG_AT(3, "Get xml config for policy %s of type %d\n", name, type);
  if (known->config == nullptr || known->generation != ctx->xml_generation) {
    const XmlKey key = key_of(type, name);
    if (!lock(ctx)) return POL_ELOCK;
    *known = {ctx->xml_configs.find(&key), ctx->xml_generation};
    const int error = unlock(ctx);
    if (error != 0) return static_cast<uint32_t>(error);
  }
  if (known->config == nullptr) return POL_OK;
  if (pieces->count == pieces->room && !pieces_grow(pieces)) {
    POL_LOG("Could not append policy (error:%d)\n", 0);
    return POL_ENOMEM;
  }
  pieces->items[pieces->count++] = known->config;
  return POL_OK;
}

uint32_t pol::xml_pieces_length(const XmlPieces& pieces, size_t* length) {
  *length = 0;
  return each_text(pieces, [=](std::string_view text, size_t) { *length += text.size(); });
}

uint32_t pol::xml_pieces_copy(const XmlPieces& pieces, char* to, size_t length, bool* same) {
  size_t at = 0;
  const uint32_t status = each_text(pieces, [&](std::string_view text, size_t i) {
    // The processor looks ahead within a text, but not to the next.
    constexpr size_t kLine = 64;
    constexpr size_t kBegins = 6 * kLine;
    const char* next = pieces.items[std::min(i + 2, pieces.count - 1)]->text;
    for (size_t line = 0; next != nullptr && line < kBegins; line += kLine) {
      __builtin_prefetch(next + line);
    }
    if (text.size() <= length && at <= length - text.size())
      memcpy(to + at, text.data(), text.size());
    at += text.size();
  });
  *same = at == length;
  return status;
}

int pol_dump_xml_config_all(t_cli_user_ctx* cli, uint32_t /*ignored*/, int /*argc*/,
                            char** /*argv*/) {
  t_pol_ctx* ctx = g_pol_ctx_p;
  if (ctx == nullptr) return 0;
  pol::dump_title(cli, "\n              XML Config    ");
  maapi_cli_printf(cli, "\n");
  int error = pol::xml_lock(ctx);
  if (error != 0) {
    maapi_cli_printf(cli, "Lock error on xml config tree (error:%d)", error);
    return 0;
  }
  for (const t_pol_xml_config* config = ctx->xml_configs.first(); config != nullptr;
       config = ctx->xml_configs.next(config)) {
    maapi_cli_printf(cli, "Name: %s, Type: %d, Size: %d\n", config->name, config->type,
                     static_cast<int>(config->size));
    maapi_cli_printf(cli, "XML: %s\n", config->text != nullptr ? config->text : "");
  }
  error = pthread_spin_unlock(&ctx->xml_lock);
  if (error != 0) maapi_cli_printf(cli, "Unlock error on xml config tree (error:%d)", error);
  return 0;
}
