// SPDX-License-Identifier: Apache-2.0
//
// Forwarding policies, the objects that they name and their users against a model. Random edits go
// to both, with memory running out now and then; after each, both tell all they know as one text:
// every object with who is registered on it in which order, every sequence with what it refers to,
// the XML cache, who is queued, who was called back, and the counts of memory.
#include "support/fwd_model.h"

#include <rapidcheck.h>

#include <array>

#include "pol_xml_config_internal.h"
#include "support/seams.h"

namespace {

using namespace fwd_model;

// What an edit does follows from its numbers, so that a failure shrinks to few small ones.
using Edit = std::array<uint32_t, 6>;

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
    const size_t any_role = e[4] % (kRoleCount + 4);  // those that stay behind more often
    const size_t role = any_role < kRoleCount ? any_role : kDns + any_role % 2;
    const std::string name = object_name(e[4] / (kRoleCount + 4));
    const size_t object_family = kRoles[role].family;
    const auto user = e[3] % kUsers;
    const int failing = std::array{0, 0, 0, 1, 1, 2, 0, 3}[e[5] / 4 % 8];
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
      case 22:
        m_.fetched();
        fetched();
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
        notify();
        break;
      default:
        edit_role(e, {key, vpn, sequence, role, name, failing});
    }
    m_.fail_at(0);
  }

  void notify() {
    m_.notify();
    pol_user_chg_list_notify_all(ctx_);
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
    const bool remove = e[3] / 4 % 8 == 0;
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

  void fetched() {
    auto clear = [](auto& tree) {
      for (auto* node = tree.first(); node != nullptr; node = tree.next(node)) node->changed = 0;
    };
    clear(ctx_->app_lists);
    clear(ctx_->fwd_pfx_lists);
    clear(ctx_->fwd_pfx6_lists);
    clear(ctx_->sla_classes);
    clear(ctx_->policers);
    clear(ctx_->vpn_lists);
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
        *rc::gen::container<std::vector<Edit>>(300, rc::gen::container<Edit>(number));
    Twin twin;
    std::string difference;
    for (uint32_t i = 0; i < 40; ++i) {  // most edits then find what they are about
      for (uint32_t make : {0u, 2u, 5u, 29u}) twin.edit({make, i % 4, i / 4 % 4, i / 16, 0, 1});
    }
    for (const Edit& edit : edits) {
      twin.edit(edit);
      difference = twin.difference();
      if (!difference.empty()) break;
      if (edit[0] / 32 % 2 == 0) twin.notify();
    }
    const std::string leaked = twin.finish();
    RC_ASSERT(difference == "");
    RC_ASSERT(leaked == "");
  });
  EXPECT_TRUE(held);
}

}  // namespace
