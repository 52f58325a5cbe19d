// SPDX-License-Identifier: Apache-2.0
// The forwarding manager's document. Policies and the objects that they name grow in two texts of
// their own, because a policy is followed by its objects only after all policies; both grow by
// doubling, so that the work is proportional to the document. Cached texts come through a buffer of
// their own: the cache appends in its way, which measures a buffer anew each time.
#include "policy/pol_fwd_document.h"

#include <libxml/parser.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string_view>

#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "base/pol_name.h"
#include "forward/pol_fwd_block_internal.h"
#include "forward/pol_fwd_document_internal.h"
#include "forward/pol_fwd_ref.h"
#include "policy/pol_xml_compat.h"
#include "policy/pol_xml_config.h"

namespace pol {
namespace {

using std::string_view;

constexpr size_t kInitialRoom = 2048;

constexpr char kPolicyNamespace[] = "urn:zenodra:policy";
constexpr string_view kConfigOpen = "<config xmlns=\"urn:norvik:config:1.0\">";
constexpr string_view kConfigClose = "</config>";

enum Direction { kAll, kFromService, kFromTunnel };

constexpr string_view kFooters[] = {
    "<direction>all</direction></data-policy>",
    "<direction>from-service</direction></data-policy>",
    "<direction>from-tunnel</direction></data-policy>",
};

struct Text {
  char* bytes;  // NUL-terminated
  size_t length;
  size_t room;  // in all, without the NUL
};

struct Assembly {
  Text policies;
  Text lists;
  Text cached;                                      // one object's at a time
  AvlTree<t_list_name_entry> names[POL_XML_TYPES];  // that `lists` has, by object type
};

// What a sequence names, in the order in which the document has it.
struct Named {
  const FwdRef& ref;
  pol_xml_type type;
  const char* word;
};

const Named kNamed[] = {
    {kFwdAppList, POL_XML_APP_LIST, "app-list"},
    {kFwdDnsAppList, POL_XML_APP_LIST, "dns-app-list"},
    {kFwdSaasAppList, POL_XML_APP_LIST, "saas-app-list"},
    {kFwdSrcPfx, POL_XML_DATA_PREFIX_LIST, "pfx-list"},
    {kFwdDstPfx, POL_XML_DATA_PREFIX_LIST, "pfx-list"},
    {kFwdSrcPfx6, POL_XML_DATA_IPV6_PREFIX_LIST, "pfx6-list"},
    {kFwdDstPfx6, POL_XML_DATA_IPV6_PREFIX_LIST, "pfx6-list"},
    {kFwdSlaClass, POL_XML_SLA_CLASS, "sla-class"},
    {kFwdPolicer, POL_XML_POLICER, "policer"},
    {kFwdTlocList, POL_XML_TLOC_LIST, "tloc-list"},
};

int name_compare(const void* key, const void* node) {
  return sign(strncmp(static_cast<const char*>(key), static_cast<const char*>(node),
                      sizeof t_list_name_entry::name));
}

[[nodiscard]] uint32_t text_init(Text* text) {
  text->bytes = static_cast<char*>(pol_malloc(kInitialRoom + 1, MEM_PEER_XML));
  if (text->bytes == nullptr) return POL_ENOMEM;
  text->bytes[0] = '\0';
  text->room = kInitialRoom;
  return POL_OK;
}

[[nodiscard]] uint32_t text_append(Text* text, string_view more) {
  size_t length = text->length + more.size();
  if (length > text->room) {
    size_t room = std::max(length, text->room * 2);
    auto* grown = static_cast<char*>(pol_realloc(text->bytes, room + 1));
    if (grown == nullptr) return POL_ENOMEM;
    text->bytes = grown;
    text->room = room;
  }
  memcpy(text->bytes + text->length, more.data(), more.size());
  text->length = length;
  text->bytes[length] = '\0';
  return POL_OK;
}

[[nodiscard]] uint32_t assembly_init(Assembly* assembly) {
  for (auto& names : assembly->names) {
    names.create(name_compare, offsetof(t_list_name_entry, link));
  }
  for (Text* text : {&assembly->policies, &assembly->lists, &assembly->cached}) {
    uint32_t status = text_init(text);
    if (status != POL_OK) return status;
  }
  return POL_OK;
}

void assembly_free(Assembly* assembly) {
  for (auto& names : assembly->names) {
    void* cookie = nullptr;
    while (t_list_name_entry* entry = names.drain(&cookie)) pol_free(entry, MEM_LIST_NAME);
    names.destroy();
  }
  for (Text* text : {&assembly->policies, &assembly->lists, &assembly->cached}) {
    pol_free(text->bytes, MEM_PEER_XML);
  }
}

[[nodiscard]] uint32_t append_cached(Assembly* assembly, Text* text, pol_xml_type type,
                                     const char* name) {
  Text* cached = &assembly->cached;
  cached->bytes[0] = '\0';
  auto room = static_cast<uint32_t>(cached->room);
  uint32_t status = pol_xml_config_get_str(type, name, &cached->bytes, &room);
  if (status != POL_OK) return status;
  cached->length = strlen(cached->bytes);
  cached->room = std::max(cached->room, cached->length);
  return text_append(text, {cached->bytes, cached->length});
}

[[nodiscard]] uint32_t add_object(Assembly* assembly, pol_xml_type type, const char* name) {
  char key[sizeof t_list_name_entry::name];
  copy_name(key, name);
  avl_index where = 0;
  if (assembly->names[type].find(key, &where) != nullptr) return POL_OK;
  auto* entry = alloc<t_list_name_entry>(MEM_LIST_NAME);
  if (entry == nullptr) return POL_ENOMEM;
  memcpy(entry->name, key, sizeof key);
  assembly->names[type].insert(entry, where);
  uint32_t status = append_cached(assembly, &assembly->lists, type, name);
  if (status != POL_OK)
    POL_LOG("Error getting list xml string (error:%d)\n", static_cast<int>(status));
  return status;
}

[[nodiscard]] uint32_t add_vpn_list(Assembly* assembly, const t_pol_fwd_vpn_entry* vpn) {
  POL_LOG_AT(3, "Get vpn-list '%s'config\n", vpn->name);
  const NamedHead* list = vpn->vpn_list != nullptr ? &vpn->vpn_list->head : nullptr;
  uint32_t status =
      add_object(assembly, POL_XML_VPN_LIST, list != nullptr ? list->name : vpn->name);
  const t_pol_entry* entry = vpn->entries.first();
  for (; entry != nullptr && status == POL_OK; entry = vpn->entries.next(entry)) {
    for (const Named& named : kNamed) {
      const NamedHead* object = fwd_object(*entry, named.ref);
      if (object == nullptr) continue;
      POL_LOG_AT(3, "Get %s '%s'config\n", named.word, object->name);
      status = add_object(assembly, named.type, object->name);
      if (status != POL_OK) break;
    }
  }
  return status;
}

[[nodiscard]] uint32_t add_policy(Assembly* assembly, const t_pol_block* block, pol_xml_type type,
                                  Direction direction) {
  if (block == nullptr) return POL_OK;
  POL_LOG_AT(3, "Get policy %s of type %d\n", block->name, static_cast<int>(type));
  uint32_t status = append_cached(assembly, &assembly->policies, type, block->name);
  if (status != POL_OK) {
    POL_LOG("Error getting policy xml string (error:%d)\n", static_cast<int>(status));
    return status;
  }
  if (type == POL_XML_DATA_POLICY) {
    POL_LOG_AT(3, "Add footer for data-policy in direction %d\n", static_cast<int>(direction));
    status = text_append(&assembly->policies, kFooters[direction]);
    if (status != POL_OK) {
      POL_LOG("Error adding footer to data policy (error:%d)\n", static_cast<int>(status));
      return status;
    }
  }
  POL_LOG_AT(3, "Get list config for policy %s\n", block->name);
  if (!is_forwarding(block->kind)) return POL_OK;
  for (const t_pol_fwd_vpn_entry* vpn = block->fwd_vpns.first(); vpn != nullptr;
       vpn = block->fwd_vpns.next(vpn)) {
    status = add_vpn_list(assembly, vpn);
    if (status == POL_OK) continue;
    POL_LOG("Error getting list xml config (error:%d)\n", static_cast<int>(status));
    return status;
  }
  return POL_OK;
}

struct Applied {
  const t_pol_block* from_service;
  const t_pol_block* from_tunnel;
  const t_pol_block* app_route;
  const t_pol_block* cflowd;
};

const t_pol_block* block_of(const t_pol_user* user) {
  return user != nullptr && user->kind != 0 ? user->block : nullptr;
}

[[nodiscard]] uint32_t add_policies(Assembly* assembly, const Applied& applied) {
  const t_pol_block* service = applied.from_service;
  const t_pol_block* tunnel = applied.from_tunnel;
  uint32_t status = POL_OK;
  if (service != nullptr && tunnel != nullptr &&
      strncmp(service->name, tunnel->name, POL_NAME_SIZE) == 0) {
    status = add_policy(assembly, service, POL_XML_DATA_POLICY, kAll);
  } else {
    status = add_policy(assembly, service, POL_XML_DATA_POLICY, kFromService);
    if (status != POL_OK) return status;
    status = add_policy(assembly, tunnel, POL_XML_DATA_POLICY, kFromTunnel);
  }
  if (status != POL_OK) return status;
  status = add_policy(assembly, applied.app_route, POL_XML_APP_ROUTE_POLICY, kAll);
  if (status != POL_OK) return status;
  return add_policy(assembly, applied.cflowd, POL_XML_CFLOWD_TEMPLATE, kAll);
}

char* put(char* at, string_view text) {
  memcpy(at, text.data(), text.size());
  return at + text.size();
}

[[nodiscard]] uint32_t finish(const Assembly& assembly, uint32_t* length, char** text) {
  const bool lists = assembly.lists.length > 0;
  const string_view open = lists ? "<lists>" : "";
  const string_view close = lists ? "</lists>" : "";
  const size_t whole =
      assembly.policies.length + open.size() + assembly.lists.length + close.size();
  char* made = nullptr;
  if (whole < UINT32_MAX) made = static_cast<char*>(pol_malloc(whole + 1, MEM_PEER_XML));
  if (made == nullptr) {
    POL_LOG("Error allocating memory for policy XML config of %d bytes\n",
            static_cast<int>(whole + 1));
    return POL_ENOMEM;
  }
  char* at = put(made, {assembly.policies.bytes, assembly.policies.length});
  at = put(at, open);
  at = put(at, {assembly.lists.bytes, assembly.lists.length});
  *put(at, close) = '\0';
  *length = static_cast<uint32_t>(whole);
  *text = made;
  return POL_OK;
}

char* made_envelope(std::initializer_list<string_view> pieces, uint32_t* length) {
  size_t whole = 0;
  for (string_view piece : pieces) whole += piece.size();
  if (whole >= UINT32_MAX) return nullptr;
  auto* made = static_cast<char*>(pol_malloc(whole + 1, MEM_SET_XML));
  if (made == nullptr) return nullptr;
  char* at = made;
  for (string_view piece : pieces) at = put(at, piece);
  *at = '\0';
  *length = static_cast<uint32_t>(whole);
  return made;
}

// The filter's text belongs to libxml2's deallocator; hosts free every envelope the same way.
char* taken_over(char* filtered, uint32_t filtered_length, uint32_t* length) {
  char* made = made_envelope({{filtered, filtered_length}}, length);
  xmlFree(filtered);
  return made;
}

char* enveloped(string_view open, string_view close, const char* body, uint32_t body_length,
                uint32_t* length) {
  if (length == nullptr) return nullptr;
  *length = 0;
  if (body == nullptr) return made_envelope({kConfigOpen, open, close, kConfigClose}, length);
  uint32_t whole = 0;
  char* made = made_envelope({kConfigOpen, open, {body, body_length}, close, kConfigClose}, &whole);
  if (made == nullptr) return nullptr;
  uint32_t filtered_length = 0;
  char* filtered = pol_xml_fetch_compat_config(
      kPolicyNamespace, made + kConfigOpen.size(),
      static_cast<uint32_t>(whole - kConfigOpen.size() - kConfigClose.size()), &filtered_length);
  if (filtered != nullptr) {
    pol_free(made, MEM_SET_XML);
    return taken_over(filtered, filtered_length, length);
  }
  *length = whole;
  return made;
}

}  // namespace
}  // namespace pol

uint32_t pol_fwd_policy_populate(const t_pol_user* from_service, const t_pol_user* from_tunnel,
                                 const t_pol_user* app_route, const t_pol_user* cflowd,
                                 uint32_t* length, char** text) {
  if (length == nullptr || text == nullptr) return POL_EINVAL;
  *length = 0;
  *text = nullptr;
  const pol::Applied applied = {pol::block_of(from_service), pol::block_of(from_tunnel),
                                pol::block_of(app_route), pol::block_of(cflowd)};
  if (applied.from_service == nullptr && applied.from_tunnel == nullptr &&
      applied.app_route == nullptr && applied.cflowd == nullptr) {
    return POL_OK;
  }
  pol::Assembly assembly = {};
  uint32_t status = pol::assembly_init(&assembly);
  if (status == POL_OK) status = pol::add_policies(&assembly, applied);
  if (status == POL_OK) {
    status = pol::finish(assembly, length, text);
  } else {
    POL_LOG("Error fetching xml policy and lists (error: %d)\n", static_cast<int>(status));
  }
  pol::assembly_free(&assembly);
  return status;
}

char* pol_fwd_policy_hdr_add(const char* body, uint32_t body_length, uint32_t* length) {
  return pol::enveloped("<policy-from-pellux xmlns=\"urn:zenodra:policy\">",
                        "</policy-from-pellux>", body, body_length, length);
}

char* pol_show_fwd_policy_hdr_add(const char* body, uint32_t body_length, uint32_t* length) {
  return pol::enveloped("<policy xmlns=\"urn:zenodra:policy\"><from-pellux>",
                        "</from-pellux></policy>", body, body_length, length);
}

// A buffer that was grown has no room left, so each later append grows it again: on purpose, callers
// outside go by the room.
uint32_t pol_fwd_policy_append(const char* text, int32_t size, char** buffer, uint32_t* room) {
  if (text == nullptr || size < 0 || buffer == nullptr || room == nullptr) return POL_OK;
  auto added = static_cast<uint32_t>(size);
  size_t length = *buffer != nullptr ? strlen(*buffer) : 0;
  if (*buffer == nullptr || *room < added) {
    auto* grown = static_cast<char*>(pol_realloc(*buffer, length + added + 1));
    if (grown == nullptr) return POL_ENOMEM;
    *buffer = grown;
    *room = 0;
  } else {
    *room -= added;
  }
  memcpy(*buffer + length, text, added);
  (*buffer)[length + added] = '\0';
  return POL_OK;
}
