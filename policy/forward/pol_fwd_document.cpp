// SPDX-License-Identifier: Apache-2.0
// The forwarding manager's document. Policies' texts grow first; the objects that they name, whose
// texts are most of it and follow all policies, are gathered meanwhile and copied once, into the
// whole. An object whose text is in the document is marked: whether a sequence names something new
// is then to be seen at the object, without a look-up, and however long names are, no two objects
// are taken for one.
#include "policy/pol_fwd_document.h"

#include <cstring>
#include <iterator>
#include <string_view>

#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "base/record_pool.h"
#include "exchange/pol_xml_config_internal.h"
#include "forward/pol_fwd_block_internal.h"
#include "forward/pol_fwd_document_internal.h"
#include "forward/pol_fwd_ref.h"
#include "policy/pol_xml_config.h"

namespace pol {
namespace {

using std::string_view;

enum Direction { kAll, kFromService, kFromTunnel };

constexpr string_view kFooters[] = {
    "<direction>all</direction></data-policy>",
    "<direction>from-service</direction></data-policy>",
    "<direction>from-tunnel</direction></data-policy>",
};

using MarkQueue = TailQueue<t_list_name_entry, &t_list_name_entry::link>;

struct Assembly {
  XmlText policies;
  XmlPieces lists;
  MarkQueue marked;  // the objects that `lists` has
  RecordPool<t_list_name_entry, MEM_LIST_NAME> marks;
};

// What a sequence names, in the order in which the document has it.
struct Named {
  const FwdRef& ref;
  const char* word;
};

const Named kNamed[] = {
    {kFwdAppList, "app-list"},          {kFwdDnsAppList, "dns-app-list"},
    {kFwdSaasAppList, "saas-app-list"}, {kFwdSrcPfx, "pfx-list"},
    {kFwdDstPfx, "pfx-list"},           {kFwdSrcPfx6, "pfx6-list"},
    {kFwdDstPfx6, "pfx6-list"},         {kFwdSlaClass, "sla-class"},
    {kFwdPolicer, "policer"},           {kFwdTlocList, "tloc-list"},
};
static_assert(std::size(kNamed) + 1 == kFwdRoles, "the agent has no text of an application id");

[[nodiscard]] uint32_t assembly_init(Assembly* assembly) {
  uint32_t status = xml_text_init(&assembly->policies);
  return status == POL_OK ? xml_pieces_init(&assembly->lists) : status;
}

void assembly_free(Assembly* assembly) {
  while (t_list_name_entry* entry = assembly->marked.pop_front()) {
    if (assembly->marked.front() != nullptr)
      __builtin_prefetch(&assembly->marked.front()->object->in_document);
    entry->object->in_document = false;
    assembly->marks.give(entry);
  }
  xml_text_free(&assembly->policies);
  xml_pieces_free(&assembly->lists);
}

[[nodiscard]] uint32_t add_object(Assembly* assembly, int32_t type, NamedHead* object) {
  if (object->in_document) return POL_OK;
  auto* entry = assembly->marks.make();
  if (entry == nullptr) return POL_ENOMEM;
  entry->object = object;
  object->in_document = true;
  assembly->marked.push_back(entry);
  uint32_t status = xml_pieces_append(type, object->name, &object->xml, &assembly->lists);
  if (status != POL_OK) {
    POL_LOG("Error getting list xml string (error:%d)\n", static_cast<int>(status));
  }
  return status;
}

// The sequences of a VPN list in order, with the objects that each names. Of many sequences little
// is cached, so what a turn reads is fetched some turns before: first the roles, then the objects.
class Turns {
 public:
  struct Turn {
    const t_pol_entry* entry;  // null after the last
    unsigned count;            // of `roles` and `objects`
    const Named* roles[std::size(kNamed)];
    NamedHead* objects[std::size(kNamed)];
  };

  explicit Turns(const AvlTree<t_pol_entry>& entries) : entries_(entries) {
    const t_pol_fwd_user user = {};
    for (size_t i = 0; i < std::size(kNamed); ++i) {
      const auto* object = reinterpret_cast<const char*>(&(user.*kNamed[i].ref.user).list);
      offsets_[i] = static_cast<uint32_t>(object - reinterpret_cast<const char*>(&user));
    }
    to_come_ = entries.first();
    for (Turn& turn : turns_) come(&turn);
    for (unsigned i = 0; i < kLooked; ++i) look(&turns_[i]);
  }
  // Good until the next call.
  const Turn& next() {
    if (at_ != 0) come(&turns_[(at_ - 1) % kComing]);
    look(&turns_[(at_ + kLooked) % kComing]);
    return turns_[at_++ % kComing];
  }

 private:
  static constexpr unsigned kComing = 8;
  static constexpr unsigned kLooked = 2;

  void come(Turn* turn) {
    turn->entry = to_come_;
    if (to_come_ == nullptr) return;
    constexpr size_t kLine = 64;
    const auto* roles = reinterpret_cast<const char*>(fwd_user(*to_come_));
    for (size_t at = 0; at < sizeof(t_pol_fwd_user); at += kLine) __builtin_prefetch(roles + at);
    to_come_ = entries_.next(to_come_);
  }
  void look(Turn* turn) const {
    turn->count = 0;
    if (turn->entry == nullptr) return;
    const auto* user = reinterpret_cast<const char*>(fwd_user(*turn->entry));
    for (size_t i = 0; i < std::size(kNamed); ++i) {
      NamedHead* object = *reinterpret_cast<NamedHead* const*>(user + offsets_[i]);
      turn->roles[turn->count] = &kNamed[i];
      turn->objects[turn->count] = object;
      turn->count += object != nullptr ? 1 : 0;
    }
    for (unsigned i = 0; i < turn->count; ++i) __builtin_prefetch(&turn->objects[i]->xml);
  }

  const AvlTree<t_pol_entry>& entries_;
  uint32_t offsets_[std::size(kNamed)];  // of the roles' objects in t_pol_fwd_user
  Turn turns_[kComing];
  const t_pol_entry* to_come_;
  unsigned at_ = 0;
};

[[nodiscard]] uint32_t add_vpn_list(Assembly* assembly, const t_pol_fwd_vpn_entry* vpn) {
  POL_LOG_AT(3, "Get vpn-list '%s'config\n", vpn->name);
  if (t_vpn_list* list = vpn->vpn_list) {
    const uint32_t status = add_object(assembly, POL_XML_VPN_LIST, &list->head);
    if (status != POL_OK) return status;
  }
  Turns turns(vpn->entries);
  for (;;) {
    const Turns::Turn& turn = turns.next();
    if (turn.entry == nullptr) return POL_OK;
    for (unsigned i = 0; i < turn.count; ++i) {
      POL_LOG_AT(3, "Get %s '%s'config\n", turn.roles[i]->word, turn.objects[i]->name);
      const int32_t type = turn.roles[i]->ref.xml_type;
      const uint32_t status = add_object(assembly, type, turn.objects[i]);
      if (status != POL_OK) return status;
    }
  }
}

[[nodiscard]] uint32_t add_policy(Assembly* assembly, const t_pol_block* block, pol_xml_type type,
                                  Direction direction) {
  if (block == nullptr) return POL_OK;
  POL_LOG_AT(3, "Get policy %s of type %d\n", block->name, static_cast<int>(type));
  uint32_t status = xml_config_append(type, block->name, &assembly->policies);
  if (status != POL_OK) {
    POL_LOG("Error getting policy xml string (error:%d)\n", static_cast<int>(status));
    return status;
  }
  if (type == POL_XML_DATA_POLICY) {
    POL_LOG_AT(3, "Add footer for data-policy in direction %d\n", static_cast<int>(direction));
    status = xml_text_append(&assembly->policies, kFooters[direction]);
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

bool given(const t_pol_user* user) { return user != nullptr && user->kind != 0; }

// Null also for one that is given and whose policy is gone: it adds nothing.
const t_pol_block* block_of(const t_pol_user* user) { return given(user) ? user->block : nullptr; }

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

// Again should the worker replace a text by one of another length meanwhile.
[[nodiscard]] uint32_t finish(const Assembly& assembly, uint32_t* length, char** text) {
  for (;;) {
    size_t listed = 0;
    uint32_t status = xml_pieces_length(assembly.lists, &listed);
    if (status != POL_OK) return status;
    const string_view open = listed > 0 ? "<lists>" : "";
    const string_view close = listed > 0 ? "</lists>" : "";
    const size_t whole = assembly.policies.length + open.size() + listed + close.size();
    char* made = nullptr;
    if (whole < UINT32_MAX) made = static_cast<char*>(pol_malloc(whole + 1, MEM_PEER_XML));
    if (made == nullptr) {
      POL_LOG("Error allocating memory for policy XML config of %d bytes\n",
              static_cast<int>(whole + 1));
      return POL_ENOMEM;
    }
    char* at = put(made, {assembly.policies.bytes, assembly.policies.length});
    at = put(at, open);
    bool same = false;
    status = xml_pieces_copy(assembly.lists, at, listed, &same);
    if (status == POL_OK && same) {
      *put(at + listed, close) = '\0';
      *length = static_cast<uint32_t>(whole);
      *text = made;
      return POL_OK;
    }
    pol_free(made, MEM_PEER_XML);
    if (status != POL_OK) return status;
  }
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
  if (!pol::given(from_service) && !pol::given(from_tunnel) && !pol::given(app_route) &&
      !pol::given(cflowd)) {
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
