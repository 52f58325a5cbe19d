// SPDX-License-Identifier: Apache-2.0
//
// fwd_model.h - forwarding policies, the objects that they name and their users as a model keeps
// them: by name, found by searching, told as one text. Names are given to it as the library cuts
// them for policies and VPN lists of policies; those of objects and VPN lists it cuts itself.
#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include "support/list_families.h"

namespace fwd_model {

inline std::string cut(const std::string& name, size_t room) { return name.substr(0, room - 1); }

// Names that become one where they are cut, and neighbours that do not.
inline const std::string kPolicyNames[] = {"P", std::string(127, 'p') + "1",
                                           std::string(127, 'p') + "2"};
inline const std::string kVpnNames[] = {"v", std::string(63, 'v') + "1", std::string(63, 'v') + "2",
                                        std::string(127, 'w') + "1", std::string(127, 'w') + "2"};
inline const std::string kObjectNames[] = {"",
                                           "o",
                                           std::string(62, 'o'),
                                           std::string(63, 'o'),
                                           std::string(63, 'o') + "1",
                                           std::string(64, 'o') + "2"};

// Often a popular one, and sometimes one that nobody has used yet.
inline std::string object_name(uint32_t n) {
  constexpr size_t kKnown = std::size(kObjectNames);
  const size_t which = n % 12;
  if (which < kKnown) return kObjectNames[which];
  return which < kKnown + 3 ? "o" : "n" + std::to_string(n / 12 % 40);
}

constexpr uint32_t kSequences[] = {1, 2, 65537, 65535};
constexpr size_t kUsers = 4;

// As texts show it.
inline std::string brief(const std::string& name) {
  return name.empty() ? "\"\"" : name.front() + std::to_string(name.size()) + name.back();
}

using Visit = std::function<void(pol::NamedHead&, uint8_t* changed, pol::UserQueue*)>;

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
    uint8_t* changed = nullptr;
    if constexpr (F::kXmlType != 0) changed = &node->changed;
    visit(node->head, changed, node->users);
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

// An SLA class's settings follow from its name.
inline uint8_t option_of(const std::string& object) { return object.size() % 2; }
inline uint32_t value_of(const std::string& object) { return object.size() % 5; }

inline void sla_upd(t_pol_ctx* ctx, const char* block, uint32_t kind, const char* vpn, uint32_t seq,
                    const char* name) {
  pol_fwd_entry_sla_class_upd(ctx, block, kind, vpn, seq, name, option_of(cut(name, 64)),
                              value_of(cut(name, 64)), *name == 0 ? 1 : 0);
}
inline t_pol_fwd_user* sla_add(t_pol_ctx* ctx, t_pol_entry* e, const char* name, uint8_t* changed) {
  return pol_fwd_entry_sla_class_add(ctx, e, name, option_of(cut(name, 64)),
                                     value_of(cut(name, 64)), changed);
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
    {4, 0, &pol::kFwdSlaClass, sla_upd, sla_add, pol_fwd_entry_sla_class_delete},
    {5, 0, &pol::kFwdPolicer, pol_fwd_entry_policer_upd, pol_fwd_entry_set_policer_add,
     pol_fwd_entry_set_policer_delete},
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
};

struct ModelPolicy {
  std::map<std::string, std::map<uint32_t, ModelSequence>> vpns;
  std::vector<int> users;
  bool orphaned = false;
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
    ModelVpnList* list = vpn_list(cut(vpn, 64));
    if (list == nullptr) return;
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
    if (!alloc(pol::MEM_FWD_ENTRY)) return;
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

  // 0: an element more, 1: one less, 2: none any more.
  void change_vpn_list(const std::string& name, uint32_t how) {
    const bool was = vpn_lists.count(name) != 0;
    ModelVpnList* list = how == 0 ? vpn_list(name) : was ? &vpn_lists[name] : nullptr;
    if (list == nullptr || (how == 0 && list->element)) return;
    if (how != 2) list->changed = true;
    const bool had = std::exchange(list->element, how == 0 && alloc(pol::MEM_VPN_ENTRY));
    if (how != 2 && list->element != had) {
      for (const auto& user : list->users) mark(user.first);
      notify();
    } else if (how == 2 || !was) {
      free_unused_vpn_list(name);
    }
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

  // The agent's texts of all were fetched.
  void fetched() {
    for (size_t f = 0; f < std::size(kFamilies); ++f) {
      for (auto& object : objects[f]) object.second.changed = kFamilies[f].xml == 0;
    }
    for (auto& list : vpn_lists) list.second.changed = false;
  }

  void notify() {
    called.insert(called.end(), queued.begin(), queued.end());
    queued.clear();
  }

 private:
  // What fails is counted and never freed: taken back, so that the counts say what is there.
  bool alloc(pol::MemType type) {
    if (fail_at_ == 0 || --fail_at_ != 0) return true;
    --g_pol_mem_info[type].allocs;
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

  ModelVpnList* vpn_list(const std::string& name) {
    auto at = vpn_lists.find(name);
    if (at != vpn_lists.end()) return &at->second;
    if (!alloc(pol::MEM_VPN_LIST)) return nullptr;
    cache(POL_XML_VPN_LIST, name);
    return &vpn_lists[name];
  }

  void free_unused_vpn_list(const std::string& name) {
    if (vpn_lists[name].element || !vpn_lists[name].users.empty()) return;
    vpn_lists.erase(name);
    xml.erase({POL_XML_VPN_LIST, name});
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

inline std::string model_tells(const Model& m) {
  std::ostringstream text;
  std::map<std::pair<size_t, std::string>, int> stale;
  std::ostringstream policies;
  for (const auto& [key, policy] : m.policies) {
    int left = 0;
    for (const auto& owner : m.owners) left += owner.second.left && owner.second.policy == key;
    policies << key.first << " " << brief(key.second) << " orphaned " << policy.orphaned << " left "
             << left << " users";
    for (int user : policy.users) policies << " u" << user;
    policies << "\n";
    for (const auto& [vpn, sequences] : policy.vpns) {
      policies << "  " << brief(vpn) << "\n";
      for (const auto& [number, seq] : sequences) {
        uint32_t flags[2] = {};
        policies << "    " << number;
        if (const auto& sla = seq.roles[kSla].object) {
          policies << " " << unsigned{option_of(*sla)} << "/" << value_of(*sla);
        }
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
    text << "vpn-list " << brief(name) << " " << list.changed;
    for (const auto& user : list.users) {
      text << " " << user.first.first << brief(user.first.second) << "/" << brief(user.second);
    }
    text << "\n";
  }
  text << "sequences " << m.owners.size() << "\n";
  for (const auto& record : m.xml) text << "xml " << record.first << brief(record.second) << "\n";
  text << "queued";
  for (int user : m.queued) text << " u" << user;
  text << "\ncalled";
  for (int user : m.called) text << " u" << user;
  return text.str();
}

}  // namespace fwd_model
