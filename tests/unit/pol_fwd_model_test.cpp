// SPDX-License-Identifier: Apache-2.0
//
// Forwarding policies, the objects that they name and their users against a model. Random edits go
// to both, with memory running out now and then; after each, both tell all they know as one text:
// every object with who is registered on it in which order, every sequence with what it refers to,
// the XML cache, who is queued, who was called back, and the counts of memory.
#include <rapidcheck.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>

#include "pol_xml_config_internal.h"
#include "policy/pol_xml_config.h"
#include "support/list_families.h"
#include "support/seams.h"

namespace {

// What an edit does follows from its numbers, so that a failure shrinks to few small ones.
using Edit = std::array<uint32_t, 6>;

std::string cut(const std::string& name, size_t room) { return name.substr(0, room - 1); }

// Names that become one where they are cut, and neighbours that do not.
const std::string kPolicyNames[] = {"P", std::string(127, 'p') + "1", std::string(127, 'p') + "2"};
const std::string kVpnNames[] = {"v", std::string(63, 'v') + "1", std::string(63, 'v') + "2",
                                 std::string(127, 'w') + "1", std::string(127, 'w') + "2"};
const std::string kObjectNames[] = {"",
                                    "o",
                                    std::string(62, 'o'),
                                    std::string(63, 'o'),
                                    std::string(63, 'o') + "1",
                                    std::string(64, 'o') + "2"};
constexpr uint32_t kSequences[] = {1, 2, 65537, 65535};
constexpr size_t kUsers = 4;

// As texts show it.
std::string brief(const std::string& name) {
  return name.empty() ? "\"\"" : name.front() + std::to_string(name.size()) + name.back();
}

using Visit = std::function<void(pol::NamedHead&, int changed, pol::UserQueue*)>;

struct Family {
  uint32_t xml;
  uint32_t memory;
  size_t roles;
  uint32_t (*change)(t_pol_ctx*, const char*, uint32_t);
  uint32_t (*cfg_del)(t_pol_ctx*, const char*);
  void (*each)(t_pol_ctx*, const Visit&);
};

template <class F>
void each(t_pol_ctx* ctx, const Visit& visit) {
  const auto& tree = ctx->*F::kObjects;
  for (auto* node = tree.first(); node != nullptr; node = tree.next(node)) {
    if constexpr (F::kXmlType != 0) {
      visit(node->head, node->changed, node->users);
    } else {
      visit(node->head, 1, node->users);
    }
  }
}

template <class F>
constexpr Family family() {
  return {F::kXmlType, F::kListMem, std::size(F::kRoles), F::add, F::cfg_del, each<F>};
}

constexpr Family kFamilies[] = {family<AppFamily>(),      family<FwdPfxFamily>(),
                                family<FwdPfx6Family>(),  family<AppIdFamily>(),
                                family<SlaClassFamily>(), family<PolicerFamily>()};

struct Role {
  size_t family;
  size_t queue;
  const pol::FwdRef* ref;
  void (*update)(t_pol_ctx*, const char*, uint32_t, const char*, uint32_t, const char*);
  t_pol_fwd_user* (*add)(t_pol_ctx*, t_pol_entry*, const char*, uint8_t*);
  void (*remove)(t_pol_ctx*, t_pol_entry*, uint8_t*);
};

void policer_upd(t_pol_ctx* ctx, const char* block, uint32_t kind, const char* vpn, uint32_t seq,
                 const char* name) {
  pol::fwd_ref_update(ctx, block, kind, vpn, seq, name, pol::kFwdPolicer);
}

constexpr size_t kDns = 1, kSaas = 2, kSla = 8, kRoleCount = 10;
constexpr Role kRoles[kRoleCount] = {
    {0, 0, &pol::kFwdAppList, pol_fwd_entry_app_list_upd, nullptr, nullptr},
    {0, 1, &pol::kFwdDnsAppList, pol_fwd_entry_dns_app_list_upd, nullptr, nullptr},
    {0, 2, &pol::kFwdSaasAppList, pol_fwd_entry_saas_app_list_upd, nullptr, nullptr},
    {1, 0, &pol::kFwdSrcPfx, pol_fwd_entry_src_pfx_upd, pol_fwd_entry_match_src_list_add,
     pol_fwd_entry_match_src_list_delete},
    {1, 1, &pol::kFwdDstPfx, pol_fwd_entry_dst_pfx_upd, pol_fwd_entry_match_dst_list_add,
     pol_fwd_entry_match_dst_list_delete},
    {2, 0, &pol::kFwdSrcPfx6, pol_fwd_entry_src_pfx6_upd, pol_fwd_entry_match_src6_list_add,
     pol_fwd_entry_match_src6_list_delete},
    {2, 1, &pol::kFwdDstPfx6, pol_fwd_entry_dst_pfx6_upd, pol_fwd_entry_match_dst6_list_add,
     pol_fwd_entry_match_dst6_list_delete},
    {3, 0, &pol::kFwdAppId, pol_fwd_entry_app_id_upd, pol_fwd_entry_match_app_id_add,
     pol_fwd_entry_match_app_id_delete},
    {4, 0, &pol::kFwdSlaClass, nullptr, nullptr, nullptr},  // takes values: written out
    {5, 0, &pol::kFwdPolicer, policer_upd, nullptr, nullptr},
};
// The bits as hosts know them; the first eight are of the match word, the others of the action's.
constexpr uint32_t kBits[kRoleCount] = {0x80000,  0x400000,  0x2000000, 0x1000, 0x2000,
                                        0x800000, 0x1000000, 0x40000,   0x200,  0x800};

using PolicyKey = std::pair<uint32_t, std::string>;

struct ModelRole {
  bool on = false;
  bool stale = false;
  std::optional<std::string> object;
};

struct ModelSequence {
  int id = 0;
  ModelRole roles[kRoleCount];
  uint32_t option = 0;
  uint32_t value = 0;
};

struct ModelPolicy {
  std::map<std::string, std::map<uint32_t, ModelSequence>> vpns;
  std::vector<int> users;
  bool orphaned = false;
  int unregistered = 0;
};

struct ModelObject {
  bool changed = true;
  std::vector<int> users[3];
};

struct ModelVpnList {
  bool changed = true;
  bool element = false;
  std::vector<std::pair<PolicyKey, std::string>> users;
};

// What a policy's registrations say of a sequence: its policy while that lives.
struct Owner {
  std::optional<PolicyKey> policy;
  bool left = false;
};

class Model {
 public:
  // The n-th allocation from now on fails; 0: none.
  void fail_at(int nth) { fail_at_ = nth; }

  std::map<PolicyKey, ModelPolicy> policies;
  std::map<std::string, ModelObject> objects[std::size(kFamilies)];
  std::map<std::string, ModelVpnList> vpn_lists;
  std::map<int, Owner> owners;
  std::set<std::pair<uint32_t, std::string>> xml;
  std::optional<PolicyKey> registered[kUsers];
  std::vector<int> queued;
  std::vector<int> called;
  int next_id = 1;

  ModelPolicy* find(const PolicyKey& key) {
    auto at = policies.find(key);
    return at != policies.end() ? &at->second : nullptr;
  }

  ModelSequence* find(const PolicyKey& key, const std::string& vpn, uint32_t sequence) {
    ModelPolicy* policy = find(key);
    if (policy == nullptr || policy->vpns.count(vpn) == 0) return nullptr;
    auto& sequences = policy->vpns[vpn];
    auto at = sequences.find(sequence);
    return at != sequences.end() ? &at->second : nullptr;
  }

  bool make_policy(const PolicyKey& key) {
    if (ModelPolicy* policy = find(key)) {
      policy->orphaned = false;
      return true;
    }
    if (!alloc(pol::MEM_BLOCK)) return false;
    policies[key];
    cache(key.first - 1, key.second);
    return true;
  }

  void delete_policy(const PolicyKey& key) {
    ModelPolicy* policy = find(key);
    if (policy == nullptr) return;
    while (!policy->vpns.empty()) delete_vpn(key, std::string(policy->vpns.begin()->first));
    policy->orphaned = true;
    mark(key);
    if (!policy->users.empty()) return;
    xml.erase({key.first - 1, key.second});
    for (auto& owner : owners) {
      if (owner.second.policy == key) owner.second.policy.reset();
    }
    policies.erase(key);
  }

  void make_vpn(const PolicyKey& key, const std::string& vpn) {
    ModelPolicy* policy = find(key);
    if (policy == nullptr || policy->vpns.count(vpn) != 0 || !alloc(pol::MEM_FWD_VPN_ENTRY)) return;
    bool created = false;
    ModelVpnList* list = vpn_list(vpn, &created);
    if (list == nullptr) {
      ++policy->unregistered;
      return;
    }
    policy->vpns[vpn];
    policy->orphaned = false;
    list->users.push_back({key, vpn});
    mark(key);
  }

  void delete_vpn(const PolicyKey& key, const std::string& vpn) {
    ModelPolicy* policy = find(key);
    if (policy == nullptr || policy->vpns.count(vpn) == 0) return;
    while (!policy->vpns[vpn].empty()) {
      delete_sequence(key, vpn, policy->vpns[vpn].begin()->first);
    }
    policy->vpns.erase(vpn);
    auto& users = vpn_lists[cut(vpn, 64)].users;
    users.erase(std::find(users.begin(), users.end(), std::make_pair(key, vpn)));
    free_unused_vpn_list(cut(vpn, 64));
    mark(key);
  }

  void make_sequence(const PolicyKey& key, const std::string& vpn, uint32_t sequence) {
    ModelPolicy* policy = find(key);
    if (policy == nullptr || policy->vpns.count(vpn) == 0) return;
    if (find(key, vpn, sequence & 0xffff) != nullptr) return;
    if (!alloc(pol::MEM_FWD_ENTRY) || !alloc(pol::MEM_UNCOUNTED)) return;
    policy->vpns[vpn][sequence & 0xffff].id = next_id;
    owners[next_id++].policy = key;
  }

  void delete_sequence(const PolicyKey& key, const std::string& vpn, uint32_t sequence) {
    ModelSequence* seq = find(key, vpn, sequence);
    if (seq == nullptr) return;
    bool left = false;
    for (size_t role = 0; role < kRoleCount; ++role) {
      if (role != kDns && role != kSaas) {
        drop(seq, role);
      } else if (seq->roles[role].object && !seq->roles[role].stale) {
        left = true;
      }
    }
    if (left) {
      owners[seq->id].left = true;
    } else {
      owners.erase(seq->id);
    }
    find(key)->vpns[vpn].erase(sequence);
    mark(key);
  }

  static bool names(const ModelSequence& seq, size_t role, const std::string& name) {
    return seq.roles[role].on && seq.roles[role].object == cut(name, 64);
  }

  bool name(ModelSequence* seq, size_t role, const std::string& name) {
    seq->roles[role].on = true;
    leave(seq, role, true);
    ModelObject* object = find_or_make(kRoles[role].family, cut(name, 64));
    if (object == nullptr) return false;
    seq->roles[role].object = cut(name, 64);
    seq->roles[role].stale = false;
    object->users[kRoles[role].queue].push_back(seq->id);
    return true;
  }

  bool drop(ModelSequence* seq, size_t role) {
    bool was = seq->roles[role].on;
    if (was) leave(seq, role, false);
    seq->roles[role].on = false;
    return was;
  }

  void forget_leftover(int id, size_t role, const std::string& object) {
    auto& users = objects[0][object].users[role];
    users.erase(std::find(users.begin(), users.end(), id));
    free_unused(0, object);
  }

  void change(size_t family, const std::string& name) {
    ModelObject* object = find_or_make(family, cut(name, 64));
    if (object == nullptr) return;
    object->changed = true;
    for (const auto& users : object->users) {
      for (int id : users) {
        if (owners[id].policy) mark(*owners[id].policy);
      }
    }
    notify();
  }

  void free_unused(size_t family, const std::string& object) {
    auto at = objects[family].find(object);
    if (at == objects[family].end()) return;
    for (const auto& users : at->second.users) {
      if (!users.empty()) return;
    }
    objects[family].erase(at);
    xml.erase({kFamilies[family].xml, object});
    for (auto& policy : policies) {
      for (auto& vpn : policy.second.vpns) {
        for (auto& seq : vpn.second) forget_stale(&seq.second, family, object);
      }
    }
  }

  void change_vpn_list(const std::string& name, uint32_t how) {
    bool created = false;
    if (how == 0) {  // an element more
      ModelVpnList* list = vpn_list(name, &created);
      if (list == nullptr || list->element) return;
      list->changed = true;
      list->element = alloc(pol::MEM_VPN_ENTRY);
      if (list->element) return tell(*list);
    } else if (vpn_lists.count(cut(name, 64)) == 0) {
      return;
    } else if (how == 1) {  // one less
      ModelVpnList& list = vpn_lists[cut(name, 64)];
      list.changed = true;
      if (list.element) {
        list.element = false;
        tell(list);
      }
      return;
    } else {
      vpn_lists[cut(name, 64)].element = false;
    }
    if (how != 0 || created) free_unused_vpn_list(cut(name, 64));
  }

  void add_user(int user, const PolicyKey& key) {
    if (registered[user] || !alloc(pol::MEM_USER) || !make_policy(key)) return;
    registered[user] = key;
    find(key)->users.push_back(user);
  }

  void remove_user(int user) {
    if (!registered[user]) return;
    const PolicyKey key = *registered[user];
    registered[user].reset();
    queued.erase(std::remove(queued.begin(), queued.end(), user), queued.end());
    auto& users = find(key)->users;
    users.erase(std::find(users.begin(), users.end(), user));
    if (find(key)->orphaned && users.empty()) delete_policy(key);
  }

  void mark(const PolicyKey& key) {
    for (int user : find(key)->users) {
      if (std::find(queued.begin(), queued.end(), user) == queued.end()) queued.push_back(user);
    }
  }

  void notify() {
    called.insert(called.end(), queued.begin(), queued.end());
    queued.clear();
  }

 private:
  // What fails is counted and never freed: taken back, so that the counts say what is there.
  bool alloc(pol::MemType type) {
    if (fail_at_ == 0 || --fail_at_ != 0) return true;
    if (type != pol::MEM_UNCOUNTED) --g_pol_mem_info[type].allocs;
    return false;
  }

  void cache(uint32_t type, const std::string& name) {
    if (type != 0 && alloc(pol::MEM_POLICY_CONFIG)) xml.insert({type, name});
  }

  ModelObject* find_or_make(size_t family, const std::string& name) {
    auto at = objects[family].find(name);
    if (at != objects[family].end()) return &at->second;
    if (!alloc(static_cast<pol::MemType>(kFamilies[family].memory))) return nullptr;
    cache(kFamilies[family].xml, name);
    return &objects[family][name];
  }

  ModelVpnList* vpn_list(const std::string& name, bool* created) {
    auto at = vpn_lists.find(cut(name, 64));
    if (at != vpn_lists.end()) return &at->second;
    if (!alloc(pol::MEM_VPN_LIST)) return nullptr;
    cache(POL_XML_VPN_LIST, cut(name, 64));
    *created = true;
    return &vpn_lists[cut(name, 64)];
  }

  void free_unused_vpn_list(const std::string& name) {
    if (vpn_lists[name].element || !vpn_lists[name].users.empty()) return;
    vpn_lists.erase(name);
    xml.erase({POL_XML_VPN_LIST, name});
  }

  void tell(const ModelVpnList& list) {
    for (const auto& user : list.users) mark(user.first);
    notify();
  }

  void leave(ModelSequence* seq, size_t role, bool keep) {
    ModelRole& at = seq->roles[role];
    if (!at.object) return;
    const std::string object = *at.object;
    auto& users = objects[kRoles[role].family][object].users[kRoles[role].queue];
    if (!at.stale) users.erase(std::find(users.begin(), users.end(), seq->id));
    at.stale = keep;
    if (!keep) at.object.reset();
    free_unused(kRoles[role].family, object);
  }

  static void forget_stale(ModelSequence* seq, size_t family, const std::string& object) {
    for (size_t role = 0; role < kRoleCount; ++role) {
      ModelRole& at = seq->roles[role];
      if (kRoles[role].family != family || !at.stale || at.object != object) continue;
      at.stale = false;
      at.object.reset();
    }
  }

  int fail_at_ = 0;
};

std::string model_tells(const Model& m) {
  std::ostringstream text;
  std::map<std::pair<size_t, std::string>, int> stale;
  std::ostringstream policies;
  size_t counts[POL_MEM_TYPES] = {};
  for (const auto& [key, policy] : m.policies) {
    ++counts[pol::MEM_BLOCK];
    int left = 0;
    for (const auto& owner : m.owners) left += owner.second.left && owner.second.policy == key;
    policies << key.first << " " << brief(key.second) << " orphaned " << policy.orphaned << " left "
             << left << " users";
    for (int user : policy.users) policies << " u" << user;
    policies << "\n";
    counts[pol::MEM_FWD_VPN_ENTRY] += policy.vpns.size() + policy.unregistered;
    for (const auto& [vpn, sequences] : policy.vpns) {
      policies << "  " << brief(vpn) << "\n";
      for (const auto& [number, seq] : sequences) {
        ++counts[pol::MEM_FWD_ENTRY];
        uint32_t flags[2] = {};
        policies << "    " << number << " " << seq.option << "/" << seq.value;
        for (size_t role = 0; role < kRoleCount; ++role) {
          const ModelRole& at = seq.roles[role];
          if (at.on) flags[role / kSla] |= kBits[role];
          policies << " " << (at.object ? brief(*at.object) : "-") << (at.stale ? "?" : "");
          if (at.stale) ++stale[{kRoles[role].family, *at.object}];
        }
        policies << " " << std::hex << flags[0] << "/" << flags[1] << std::dec << "\n";
      }
    }
  }
  for (size_t f = 0; f < std::size(kFamilies); ++f) {
    for (const auto& [name, object] : m.objects[f]) {
      ++counts[kFamilies[f].memory];
      text << "family " << f << " " << brief(name) << " " << object.changed << " stale "
           << stale[{f, name}];
      for (size_t queue = 0; queue < kFamilies[f].roles; ++queue) {
        text << " |";
        for (int id : object.users[queue]) {
          const Owner& owner = m.owners.at(id);
          text << " " << id << (owner.left ? "!" : "") << "@"
               << (owner.policy ? brief(owner.policy->second) : "nobody");
        }
      }
      text << "\n";
    }
  }
  text << policies.str();
  for (const auto& [name, list] : m.vpn_lists) {
    ++counts[pol::MEM_VPN_LIST];
    counts[pol::MEM_VPN_ENTRY] += list.element ? 1 : 0;
    text << "vpn-list " << brief(name) << " " << list.changed;
    for (const auto& user : list.users) {
      text << " " << user.first.first << brief(user.first.second) << "/" << brief(user.second);
    }
    text << "\n";
  }
  for (const auto& record : m.xml) text << "xml " << record.first << brief(record.second) << "\n";
  counts[pol::MEM_POLICY_CONFIG] = m.xml.size();
  text << "queued";
  for (int user : m.queued) text << " u" << user;
  text << "\ncalled";
  for (int user : m.called) text << " u" << user;
  for (const auto& user : m.registered) counts[pol::MEM_USER] += user.has_value() ? 1 : 0;
  counts[pol::MEM_CONTEXT] = 1;
  text << "\nmemory";
  for (size_t count : counts) text << " " << count;
  return text.str();
}

// The library, told what the model is told.
class Twin {
 public:
  Twin() {
    for (size_t i = 0; i < POL_MEM_TYPES; ++i) before_[i] = outstanding(i);
    t_pol_callbacks callbacks = {};
    ctx_ = pol_init(&callbacks);
    RC_ASSERT(ctx_ != nullptr);
    for (size_t user = 0; user < kUsers; ++user) {
      calls_[user] = {&called_, static_cast<int>(user)};
    }
  }
  Twin(const Twin&) = delete;
  Twin& operator=(const Twin&) = delete;

  void edit(const Edit& e) {
    const PolicyKey key = {2 + e[1] % 2, kPolicyNames[e[1] / 2 % std::size(kPolicyNames)]};
    const PolicyKey model_key = {key.first, cut(key.second, 128)};
    const std::string& vpn = kVpnNames[e[2] % std::size(kVpnNames)];
    const std::string model_vpn = cut(vpn, 128);
    const uint32_t sequence = kSequences[e[3] % std::size(kSequences)];
    const size_t role = e[4] % kRoleCount;
    const std::string& name = kObjectNames[e[4] / kRoleCount % std::size(kObjectNames)];
    const size_t object_family = kRoles[role].family;
    const auto user = e[3] % kUsers;
    const int failing = e[5] % 4 == 0 ? static_cast<int>(1 + e[5] / 4 % 3) : 0;
    const char* policy_name = key.second.c_str();
    m_.fail_at(failing);
    m_.called.clear();
    called_.clear();
    uint8_t changed = 0;
    t_pol_entry* made = nullptr;
    const int id_before = m_.next_id;
    switch (e[0] % 32) {
      case 0:
        m_.make_policy(model_key);
        with(failing, [&] { pol_block_find_or_create(ctx_, policy_name, key.first, &changed); });
        break;
      case 1:
        m_.delete_policy(model_key);
        pol_block_find_and_delete(ctx_, policy_name, key.first, &changed);
        break;
      case 2:
      case 3:
        m_.make_vpn(model_key, model_vpn);
        with(failing,
             [&] { pol_fwd_vpn_find_or_create(ctx_, policy_name, key.first, vpn.c_str()); });
        break;
      case 4:
        m_.delete_vpn(model_key, model_vpn);
        pol_fwd_vpn_find_and_delete(ctx_, policy_name, key.first, vpn.c_str());
        break;
      case 5:
      case 6:
      case 7:
        m_.make_sequence(model_key, model_vpn, sequence);
        with(failing, [&] {
          made = pol_fwd_entry_find_or_create(ctx_, policy_name, key.first, vpn.c_str(),
                                              static_cast<int32_t>(sequence));
        });
        if (m_.next_id != id_before && made != nullptr) know(made->fwd.user, id_before);
        break;
      case 8:
      case 9:
        m_.delete_sequence(model_key, model_vpn, sequence);
        pol_fwd_entry_find_and_delete(ctx_, policy_name, key.first, vpn.c_str(),
                                      static_cast<int32_t>(sequence));
        break;
      case 23:
      case 24:
      case 25:
        m_.change(object_family, name);
        with(failing, [&] { kFamilies[object_family].change(ctx_, name.c_str(), 0); });
        break;
      case 26:
        m_.free_unused(object_family, cut(name, 64));
        kFamilies[object_family].cfg_del(ctx_, name.c_str());
        break;
      case 27:
      case 28:
        m_.change_vpn_list(vpn, e[3] % 3);
        with(failing, [&] {
          if (e[3] % 3 == 0) pol_vpn_list_add_entry(ctx_, vpn.c_str(), 1, 1);
          if (e[3] % 3 == 1) pol_vpn_list_del_entry(ctx_, vpn.c_str(), 1, 1);
          if (e[3] % 3 == 2) pol_vpn_list_cfg_del(ctx_, vpn.c_str());
        });
        break;
      case 29:
        m_.add_user(static_cast<int>(user), model_key);
        if (users_[user] == nullptr) with(failing, [&] { add_user(user, key); });
        break;
      case 30:
        m_.remove_user(static_cast<int>(user));
        pol_unregister(&users_[user]);
        break;
      case 31:
        m_.notify();
        pol_user_chg_list_notify_all(ctx_);
        break;
      default:
        edit_role(e, {key, vpn, sequence, role, name, failing});
    }
    m_.fail_at(0);
  }

  // What both say; empty when it is the same.
  std::string difference() {
    const std::string model = model_tells(m_);
    const std::string library = library_tells();
    return model == library ? "" : "model:\n" + model + "\nlibrary:\n" + library;
  }

  // Ends what would outlive its policy, and the context; the counts must be as they were.
  std::string finish() {
    for (const auto& [key, policy] : m_.policies) {
      for (const auto& [vpn, sequences] : policy.vpns) {
        for (const auto& [number, seq] : sequences) {
          pol_fwd_entry_dns_app_list_upd(ctx_, key.second.c_str(), key.first, vpn.c_str(), number,
                                         nullptr);
          pol_fwd_entry_saas_app_list_upd(ctx_, key.second.c_str(), key.first, vpn.c_str(), number,
                                          "");
        }
      }
    }
    for (size_t role : {kDns, kSaas}) forget_leftovers(role);
    pol_destroy();
    std::string text;
    for (size_t i = 0; i < POL_MEM_TYPES; ++i) {
      if (outstanding(i) != before_[i]) text += "memory type " + std::to_string(i) + " ";
    }
    return text;
  }

 private:
  struct Place {
    PolicyKey key;
    std::string vpn;
    uint32_t sequence;
    size_t role;
    std::string name;
    int failing;
  };

  template <class Act>
  static void with(int failing, Act act) {
    if (failing == 0) return act();
    seams::Fail fail(failing);
    act();
  }

  void edit_role(const Edit& e, const Place& at) {
    const PolicyKey model_key = {at.key.first, cut(at.key.second, 128)};
    ModelSequence* seq = m_.find(model_key, cut(at.vpn, 128), at.sequence);
    t_pol_entry* entry =
        pol::fwd_find(ctx_, at.key.second.c_str(), at.key.first, at.vpn.c_str(), at.sequence).entry;
    RC_ASSERT((seq != nullptr) == (entry != nullptr));
    const bool in_hand = e[0] % 32 >= 20;
    const Role& role = kRoles[at.role];
    const char* name = at.name.c_str();
    if (at.role == kSla) return edit_sla(e, at, seq, entry, in_hand);
    if (!in_hand || role.add == nullptr) {
      if (seq != nullptr) {
        bool changes = at.name.empty() ? m_.drop(seq, at.role)
                                       : !Model::names(*seq, at.role, at.name) &&
                                             m_.name(seq, at.role, at.name);
        if (changes) m_.mark(model_key);
      }
      with(at.failing, [&] {
        role.update(ctx_, at.key.second.c_str(), at.key.first, at.vpn.c_str(), at.sequence, name);
      });
      return;
    }
    if (seq == nullptr) return;
    const bool remove = e[5] % 3 == 0;
    const bool named = Model::names(*seq, at.role, at.name);
    const bool changes = remove ? m_.drop(seq, at.role) : !named && m_.name(seq, at.role, at.name);
    if (changes) m_.mark(model_key);
    uint8_t changed = 0;
    t_pol_fwd_user* record = nullptr;
    with(at.failing, [&] {
      if (remove) role.remove(ctx_, entry, &changed);
      if (!remove) record = role.add(ctx_, entry, name, &changed);
    });
    RC_ASSERT(changes == (changed != 0));
    RC_ASSERT(record == (!remove && (named || changes) ? entry->fwd.user : nullptr));
  }

  void edit_sla(const Edit& e, const Place& at, ModelSequence* seq, t_pol_entry* entry,
                bool in_hand) {
    if (at.key.first != POL_KIND_PERF_ROUTE || (in_hand && seq == nullptr)) return;
    const PolicyKey model_key = {at.key.first, cut(at.key.second, 128)};
    const auto option = static_cast<uint8_t>(e[5] % 2);
    const uint32_t value = e[5] / 2 % 2;
    const bool remove = e[3] / 4 % 4 == 0;
    bool changes = false;
    if (seq != nullptr && remove) {
      changes = m_.drop(seq, kSla);
      if (changes) {
        seq->option = 0;
        m_.mark(model_key);
      }
    } else if (seq != nullptr && (in_hand || !at.name.empty())) {
      const bool named = Model::names(*seq, kSla, at.name);
      changes = named ? seq->option != option || seq->value != value : m_.name(seq, kSla, at.name);
      if (changes) seq->option = option, seq->value = value;
      if (changes && (!named || !in_hand)) m_.mark(model_key);
    }
    uint8_t changed = 0;
    with(at.failing, [&] {
      if (!in_hand) {
        pol_fwd_entry_sla_class_upd(ctx_, at.key.second.c_str(), at.key.first, at.vpn.c_str(),
                                    at.sequence, at.name.c_str(), option, value, remove ? 1 : 0);
      } else if (remove) {
        pol_fwd_entry_sla_class_delete(ctx_, entry, &changed);
      } else {
        pol_fwd_entry_sla_class_add(ctx_, entry, at.name.c_str(), option, value, &changed);
      }
    });
    if (in_hand) RC_ASSERT(changes == (changed != 0));
  }

  struct Calls {
    std::vector<int>* order;
    int user;
  };

  void add_user(size_t user, const PolicyKey& key) {
    t_pol_registration record = {};
    snprintf(record.user_name, sizeof record.user_name, "u%zu", user);
    snprintf(record.policy_name, sizeof record.policy_name, "%s", key.second.c_str());
    record.kind = key.first;
    record.change = [](t_pol_user*, uint64_t arg) {
      auto* calls = reinterpret_cast<Calls*>(arg);
      calls->order->push_back(calls->user);
    };
    record.user_arg = reinterpret_cast<uint64_t>(&calls_[user]);
    users_[user] = pol_register(&record);
  }

  void know(t_pol_fwd_user* user, int id) {
    for (const Role& role : kRoles) registrations_[&(user->*role.ref->user)] = {id, user};
  }

  void forget_leftovers(size_t role) {
    for (t_app_list* list = pol_app_list_first(ctx_); list != nullptr;) {
      t_app_list* next = pol_app_list_next(ctx_, list);
      while (t_pol_clause_user* left = list->users[role].front()) {
        bool last = left->link.next == nullptr;
        auto remove = role == kDns ? pol_dns_app_list_user_remove : pol_saas_app_list_user_remove;
        remove(ctx_, list, registrations_[left].second);
        if (last) break;
      }
      list = next;
    }
  }

  static uint64_t outstanding(size_t type) {
    return g_pol_mem_info[type].allocs - g_pol_mem_info[type].frees;
  }

  std::string library_tells() {
    std::ostringstream text;
    for (size_t f = 0; f < std::size(kFamilies); ++f) {
      kFamilies[f].each(ctx_, [&](pol::NamedHead& head, int changed, pol::UserQueue* queues) {
        int stale = 0;
        for (const t_pol_clause_user& user : head.stale) {
          stale += user.stale && user.list == &head ? 1 : 1000;
        }
        text << "family " << f << " " << brief(head.name) << " " << changed << " stale " << stale;
        for (size_t queue = 0; queue < kFamilies[f].roles; ++queue) {
          text << " |";
          for (const t_pol_clause_user& user : queues[queue]) {
            const auto [id, record] = registrations_[&user];
            text << " " << id << (user.entry == nullptr ? "!" : "") << "@"
                 << (user.block != nullptr ? brief(user.block->name) : "nobody");
            if (user.list != &head || user.stale) text << " astray";
            if (user.entry != nullptr && user.entry->fwd.user != record) text << " another's";
          }
        }
        text << "\n";
      });
    }
    for (uint32_t kind : {POL_KIND_DATA, POL_KIND_PERF_ROUTE}) {
      for (t_pol_block* block = pol_block_first(ctx_, kind); block != nullptr;
           block = pol_block_next(ctx_, block, kind)) {
        tell_policy(*block, &text);
      }
    }
    for (t_vpn_list* list = pol_vpn_list_first(ctx_); list != nullptr;
         list = pol_vpn_list_next(ctx_, list)) {
      text << "vpn-list " << brief(list->head.name) << " " << unsigned{list->changed};
      for (const t_pol_fwd_vpn_entry& vpn : list->fwd_pol_users) {
        text << " " << vpn.block->kind << brief(vpn.block->name) << "/" << brief(vpn.name);
        if (vpn.vpn_list != list) text << " astray";
      }
      text << "\n";
    }
    const auto& cache = ctx_->xml_configs;
    for (const t_pol_xml_config* c = cache.first(); c != nullptr; c = cache.next(c)) {
      text << "xml " << c->type << brief(c->name) << "\n";
    }
    text << "queued";
    for (const t_pol_user& user : ctx_->change_list) text << " " << user.name;
    text << "\ncalled";
    for (int user : called_) text << " u" << user;
    text << "\nmemory";
    for (size_t i = 0; i < POL_MEM_TYPES; ++i) text << " " << outstanding(i) - before_[i];
    return text.str();
  }

  static void tell_policy(const t_pol_block& block, std::ostringstream* text) {
    int left = 0;
    for (const t_pol_fwd_user& user : block.leftovers) left += user.entry == nullptr ? 1 : 1000;
    *text << block.kind << " " << brief(block.name) << " orphaned " << unsigned{block.orphaned}
          << " left " << left << " users";
    for (const t_pol_user& user : block.users) *text << " " << user.name;
    *text << "\n";
    for (const t_pol_fwd_vpn_entry* vpn = block.fwd_vpns.first(); vpn != nullptr;
         vpn = block.fwd_vpns.next(vpn)) {
      *text << "  " << brief(vpn->name) << (vpn->block != &block ? " astray" : "") << "\n";
      for (const t_pol_entry* entry = vpn->entries.first(); entry != nullptr;
           entry = vpn->entries.next(entry)) {
        *text << "    " << entry->sequence << " " << unsigned{entry->fwd.sla_option} << "/"
              << entry->fwd.sla_value;
        for (const Role& role : kRoles) {
          const t_pol_clause_user& user = entry->fwd.user->*role.ref->user;
          *text << " " << (user.list != nullptr ? brief(user.list->name) : "-")
                << (user.stale ? "?" : "");
        }
        *text << " " << std::hex << entry->match_flags << "/" << entry->set_flags << std::dec;
        if (entry->block != &block || entry->fwd.vpn != vpn) *text << " astray";
        *text << "\n";
      }
    }
  }

  Model m_;
  t_pol_ctx* ctx_ = nullptr;
  t_pol_user* users_[kUsers] = {};
  Calls calls_[kUsers] = {};
  std::vector<int> called_;
  std::map<const t_pol_clause_user*, std::pair<int, t_pol_fwd_user*>> registrations_;
  uint64_t before_[POL_MEM_TYPES] = {};
};

TEST(FwdModelTest, KnowsWhoUsesWhatLikeAModelThatSearches) {
  bool held = rc::check("forwarding policies and model agree", [] {
    const auto number = rc::gen::inRange<uint32_t>(0, 1u << 16);
    const auto edits =
        *rc::gen::container<std::vector<Edit>>(200, rc::gen::container<Edit>(number));
    Twin twin;
    std::string difference;
    for (uint32_t i = 0; i < 40; ++i) {  // most edits then find what they are about
      for (uint32_t make : {0u, 2u, 5u}) twin.edit({make, i % 4, i / 4 % 4, i / 16, 0, 1});
    }
    for (const Edit& edit : edits) {
      twin.edit(edit);
      difference = twin.difference();
      if (!difference.empty()) break;
    }
    const std::string leaked = twin.finish();
    RC_ASSERT(difference == "");
    RC_ASSERT(leaked == "");
  });
  EXPECT_TRUE(held);
}

}  // namespace
