// SPDX-License-Identifier: Apache-2.0
//
// Forwarding policies, the objects that they name and their users against a model. Random edits go
// to both, with memory running out now and then; after each, both tell all they know as one text:
// every object with who is registered on it in which order, every sequence with what it refers to,
// the XML cache, who is queued and who was called back; at the end all memory must be free.
#include "support/fwd_model.h"

#include <rapidcheck.h>

#include <array>

#include "exchange/pol_xml_config_internal.h"
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
    const Place at = {{2 + e[1] % 2, pick(kPolicyNames, e[1] / 2)},
                      pick(kVpnNames, e[2]),
                      kSequences[e[3] / 8 % 2 * e[3] % std::size(kSequences)]};
    const PolicyKey key = at.model_key();
    const std::string vpn = at.model_vpn();
    const uint32_t kind = key.first;
    const char* p = at.key.second.c_str();
    const char* v = at.vpn.c_str();
    const auto number = static_cast<int32_t>(at.sequence);
    const size_t role = role_of(e);
    const std::string name = object_name(e[4] / (kRoleCount + 4));
    const size_t family = kRoles[role].family;
    const size_t user = e[3] % kUsers;
    const int id = m_.next_id;
    uint8_t changed = 0;
    m_.called.clear();
    called_.clear();
    const int failing = std::array{0, 0, 0, 1, 1, 2, 0, 3}[e[5] / 4 % 8];
    m_.fail_at(failing);
    seams::Fail fail(failing);  // of the library's; the model's memory is not that
    // Much is made and little deleted: most edits must find what they are about.
    const char what = "PpVVVVvSSSSSSSSssrrrrrrrrrrrrrrRRRRRRRRRRRRRRRRffCCCCCCcLLLUUunn"[e[0] % 64];
    switch (what) {
      case 'P':
        m_.make_policy(key);
        pol_block_find_or_create(ctx_, p, kind, &changed);
        break;
      case 'p':
        m_.delete_policy(key);
        pol_block_find_and_delete(ctx_, p, kind, &changed);
        break;
      case 'V':
        m_.make_vpn(key, vpn);
        pol_fwd_vpn_find_or_create(ctx_, p, kind, v);
        break;
      case 'v':
        m_.delete_vpn(key, vpn);
        pol_fwd_vpn_find_and_delete(ctx_, p, kind, v);
        break;
      case 'S': {
        m_.make_sequence(key, vpn, at.sequence);
        t_pol_entry* made = pol_fwd_entry_find_or_create(ctx_, p, kind, v, number);
        if (m_.next_id != id && made != nullptr) know(made->fwd.user, id);
        break;
      }
      case 's':
        m_.delete_sequence(key, vpn, at.sequence);
        pol_fwd_entry_find_and_delete(ctx_, p, kind, v, number);
        break;
      case 'C':
        m_.change(family, name);
        kFamilies[family].change(ctx_, name.c_str(), 0);
        break;
      case 'c':
        m_.free_unused(family, cut(name, 64));
        kFamilies[family].cfg_del(ctx_, name.c_str());
        break;
      case 'L':
        m_.change_vpn_list(cut(vpn, 64), e[3] % 3);
        if (e[3] % 3 == 0) pol_vpn_list_add_entry(ctx_, v, 1, 1);
        if (e[3] % 3 == 1) pol_vpn_list_del_entry(ctx_, v, 1, 1);
        if (e[3] % 3 == 2) pol_vpn_list_cfg_del(ctx_, v);
        break;
      case 'f':
        m_.fetched();
        fetched();
        break;
      case 'U':
        m_.add_user(static_cast<int>(user), key);
        if (users_[user] == nullptr) add_user(user, at.key);
        break;
      case 'u':
        m_.remove_user(static_cast<int>(user));
        pol_unregister(&users_[user]);
        break;
      case 'n':
        notify();
        break;
      default:
        edit_role(at, role, name, what == 'R' && kRoles[role].add != nullptr, e[5] % 3 == 0);
    }
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
    uint8_t changed = 0;
    for (const auto& policy : m_.policies) {
      pol_block_find_and_delete(ctx_, policy.first.second.c_str(), policy.first.first, &changed);
    }
    while (t_app_list* list = pol_app_list_first(ctx_)) {
      if (t_pol_clause_user* dns = list->users[kDns].front()) {
        pol_dns_app_list_user_remove(ctx_, list, registrations_[dns].second);
      } else if (t_pol_clause_user* saas = list->users[kSaas].front()) {
        pol_saas_app_list_user_remove(ctx_, list, registrations_[saas].second);
      } else {
        pol_app_list_cfg_del(ctx_, list->head.name);
      }
    }
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

    PolicyKey model_key() const { return {key.first, cut(key.second, 128)}; }
    std::string model_vpn() const { return cut(vpn, 128); }
  };

  // The first most often: edits must meet.
  template <size_t size>
  static const std::string& pick(const std::string (&names)[size], uint32_t n) {
    return names[n / 16 % 4 == 0 ? n % size : 0];
  }

  // Those that stay behind more often.
  static size_t role_of(const Edit& e) {
    const size_t any = e[4] % (kRoleCount + 4);
    return any < kRoleCount ? any : kDns + any % 2;
  }

  // By its path or, in hand, by the sequence itself.
  void edit_role(const Place& at, size_t which, const std::string& name, bool in_hand,
                 bool remove) {
    const Role& role = kRoles[which];
    if (which == kSla && at.key.first != POL_KIND_PERF_ROUTE) return;
    ModelSequence* seq = m_.find(at.model_key(), at.model_vpn(), at.sequence);
    const char* policy = at.key.second.c_str();
    t_pol_entry* entry =
        pol::fwd_find(ctx_, policy, at.key.first, at.vpn.c_str(), at.sequence).entry;
    RC_ASSERT((seq != nullptr) == (entry != nullptr));
    if (!in_hand) remove = name.empty();
    bool named = false;
    bool changes = false;
    if (seq != nullptr) {
      named = Model::names(*seq, which, name);
      changes = remove ? m_.drop(seq, which) : !named && m_.name(seq, which, name);
    }
    if (changes) m_.mark(at.model_key());
    if (!in_hand) {
      role.update(ctx_, policy, at.key.first, at.vpn.c_str(), at.sequence, name.c_str());
    } else if (seq != nullptr) {
      uint8_t changed = 0;
      t_pol_fwd_user* record = nullptr;
      if (remove) role.remove(ctx_, entry, &changed);
      if (!remove) record = role.add(ctx_, entry, name.c_str(), &changed);
      RC_ASSERT(changes == (changed != 0));
      RC_ASSERT(record == (!remove && (named || changes) ? entry->fwd.user : nullptr));
    }
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
    for (const Family& family : kFamilies) {
      family.each(ctx_, [](pol::NamedHead&, uint8_t* changed, pol::UserQueue*) {
        if (changed != nullptr) *changed = 0;
      });
    }
    auto& lists = ctx_->vpn_lists;
    for (auto* list = lists.first(); list != nullptr; list = lists.next(list)) list->changed = 0;
  }

  void know(t_pol_fwd_user* user, int id) {
    for (const Role& role : kRoles) registrations_[&(user->*role.ref->user)] = {id, user};
  }

  static uint64_t outstanding(size_t type) {
    return g_pol_mem_info[type].allocs - g_pol_mem_info[type].frees;
  }

  std::string library_tells() {
    std::ostringstream text;
    for (size_t f = 0; f < std::size(kFamilies); ++f) {
      kFamilies[f].each(ctx_, [&](pol::NamedHead& head, uint8_t* changed, pol::UserQueue* queues) {
        int stale = 0;
        for (const t_pol_clause_user& user : head.stale) {
          stale += pol::is_stale(user) && user.list == &head ? 1 : 1000;
        }
        text << "family " << f << " " << brief(head.name) << " "
             << (changed == nullptr || *changed != 0) << " stale " << stale;
        for (size_t queue = 0; queue < kFamilies[f].roles; ++queue) {
          text << " |";
          for (const t_pol_clause_user& user : queues[queue]) {
            const auto [id, record] = registrations_[&user];
            text << " " << id << (user.entry == nullptr ? "!" : "") << "@"
                 << (user.block != nullptr ? brief(user.block->name) : "nobody");
            if (user.list != &head || user.queue != &queues[queue]) text << " astray";
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
    text << "sequences " << outstanding(pol::MEM_FWD_ENTRY) - before_[pol::MEM_FWD_ENTRY] << "\n";
    const auto& cache = ctx_->xml_configs;
    for (const t_pol_xml_config* c = cache.first(); c != nullptr; c = cache.next(c)) {
      text << "xml " << c->type << brief(c->name) << "\n";
    }
    text << "queued";
    for (const t_pol_user& user : ctx_->change_list) text << " " << user.name;
    text << "\ncalled";
    for (int user : called_) text << " u" << user;
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
        *text << "    " << entry->sequence;
        if (entry->fwd.user->sla_class.list != nullptr) {
          *text << " " << unsigned{entry->fwd.sla_option} << "/" << entry->fwd.sla_value;
        }
        for (const Role& role : kRoles) {
          const t_pol_clause_user& user = entry->fwd.user->*role.ref->user;
          *text << " " << (user.list != nullptr ? brief(user.list->name) : "-")
                << (pol::is_stale(user) ? "?" : "");
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
    const auto number = rc::gen::resize(rc::kNominalSize, rc::gen::inRange<uint32_t>(0, 1u << 16));
    const auto edits =
        *rc::gen::container<std::vector<Edit>>(600, rc::gen::container<Edit>(number));
    Twin twin;
    std::string difference;
    for (uint32_t i = 0; i < 40; ++i) {  // most edits then find what they are about
      for (uint32_t make : {0u, 2u, 7u, 59u}) twin.edit({make, i % 4, i / 4 % 4, i / 16, 0, 1});
    }
    for (const Edit& edit : edits) {
      twin.edit(edit);
      difference = twin.difference();
      if (!difference.empty()) break;
      if (edit[0] / 64 % 2 == 0) twin.notify();
    }
    const std::string leaked = twin.finish();
    RC_ASSERT(difference == "");
    RC_ASSERT(leaked == "");
  });
  EXPECT_TRUE(held);
}

}  // namespace
