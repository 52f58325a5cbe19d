// SPDX-License-Identifier: Apache-2.0
// Every exported function of lists, policies, sequences, clauses, users, evaluation, words, dumps and
// text lines, called wrongly: each in turn with one of its pointers null and everything else as it
// should be. Nothing may change, and the answer is null, "reject" or a status that says so.
//
// The functions come from the version script: a new one is tried, or named below as one that is not.
#include <string_view>
#include <tuple>
#include <type_traits>

#include "support/policy_fixture.h"

namespace {

class MisuseTest : public PolicyTest {
 protected:
  static constexpr const char* kName = "name";

  void SetUp() override {
    PolicyTest::SetUp();
    fill();
  }

  // One of everything, by the one name.
  void fill() {
    policy_ = block(kName);
    entry_ = entry(policy_, 1);
    user_ = add_user(kName, kName, nullptr, POL_DIR_IN);
    tloc_ = tloc4(0x0a000001);
    record_ = {POL_PFX_EQ, prefix4(0x0a000000, 8), 0, 0};
    pol_site_list_add_entry(ctx, kName, 1, 1);
    pol_vpn_list_add_entry(ctx, kName, 1, 1);
    pol_tloc_list_add_entry(ctx, kName, &tloc_, 1);
    pol_color_list_add_entry(ctx, kName, 1);
    pol_pfx_list_entry_add(ctx, kName, &record_);
    pol_app_list_entry_change(ctx, kName);
    pol_fwd_pfx_list_entry_change(ctx, kName);
    pol_fwd_sla_class_entry_change(ctx, kName);
    pol_fwd_policer_entry_change(ctx, kName);
    pol_fwd_app_id_entry_change(ctx, kName);
    list_user_ = pol_site_list_user_add(ctx, kName, nullptr, nullptr);
    take_queued();
  }

  // All but the counts of allocations: what is made and given back at once is no change.
  static std::string state() {
    const std::string all = printed([](t_cli_user_ctx* cli) { pol_dump_all(cli, 0, 0, nullptr); });
    return all.substr(0, all.find("MEMORY STATISTICS"));
  }

  // What an argument of a type should be.
  template <class T>
  T good() {
    using Bare = std::remove_const_t<std::remove_pointer_t<T>>;
    if constexpr (!std::is_pointer_v<T>) {
      return T(1);
    } else if constexpr (std::is_same_v<T, const char*>) {
      return kName;
    } else if constexpr (std::is_same_v<Bare, t_pol_ctx>) {
      return ctx;
    } else if constexpr (std::is_same_v<Bare, t_pol_block>) {
      return policy_;
    } else if constexpr (std::is_same_v<Bare, t_pol_entry>) {
      return entry_;
    } else if constexpr (std::is_same_v<T, t_pol_user**>) {
      return &user_;
    } else if constexpr (std::is_same_v<Bare, t_pol_user>) {
      return user_;
    } else if constexpr (std::is_same_v<Bare, t_pol_list_user>) {
      return list_user_;
    } else if constexpr (requires { (Bare{}.head, Bare{}.head.name); }) {
      return list<Bare>();
    } else if constexpr (std::is_same_v<Bare, t_tloc_id>) {
      return &tloc_;
    } else if constexpr (std::is_same_v<Bare, t_pol_pfx_record>) {
      return &record_;
    } else if constexpr (std::is_function_v<Bare> || std::is_void_v<Bare> ||
                         std::is_same_v<Bare, char*>) {
      return nullptr;
    } else if constexpr (std::is_same_v<T, t_pol_test_tokens*> || std::is_array_v<Bare>) {
      static t_pol_test_tokens tokens;
      memset(tokens, 0, sizeof tokens);
      return tokens;
    } else {
      static Bare record;
      memset(static_cast<void*>(&record), 0, sizeof record);
      return &record;
    }
  }

  template <class List>
  List* list() {
    if constexpr (std::is_same_v<List, t_site_list>) return found(ctx->site_lists);
    if constexpr (std::is_same_v<List, t_vpn_list>) return found(ctx->vpn_lists);
    if constexpr (std::is_same_v<List, t_tloc_list>) return found(ctx->tloc_lists);
    if constexpr (std::is_same_v<List, t_color_list>) return found(ctx->color_lists);
    if constexpr (std::is_same_v<List, t_pfx_list>) return found(ctx->pfx_lists);
    if constexpr (std::is_same_v<List, t_app_list>) return found(ctx->app_lists);
    if constexpr (std::is_same_v<List, t_fwd_pfx_list>) return found(ctx->fwd_pfx_lists);
    if constexpr (std::is_same_v<List, t_fwd_sla_class>) return found(ctx->sla_classes);
    if constexpr (std::is_same_v<List, t_fwd_policer>) return found(ctx->policers);
    if constexpr (std::is_same_v<List, t_fwd_app_id>) return found(ctx->app_ids);
  }

  template <class List>
  static List* found(pol::NamedTree<List>& tree) {
    return pol::named_find(tree, kName);
  }

  // What may be null: places for what a caller need not know, callbacks and what is theirs.
  template <class T>
  static constexpr bool kOptional =
      std::is_same_v<T, uint8_t*> || std::is_same_v<T, uintptr_t*> || std::is_same_v<T, void*> ||
      std::is_same_v<T, char**> || std::is_same_v<T, avl_tree*> ||
      std::is_same_v<T, t_cli_user_ctx*> || std::is_same_v<T, t_pol_explain_step*> ||
      std::is_function_v<std::remove_pointer_t<T>>;

  template <class R>
  static void expect_refused(R result, const std::string& what) {
    if constexpr (std::is_same_v<R, char*>) {
      // The caller's own buffer.
    } else if constexpr (std::is_pointer_v<R>) {
      EXPECT_EQ(result, nullptr) << what;
    } else {
      EXPECT_TRUE(result == R(0) || result == R(-1) || result == R(POL_REJECT) ||
                  result == R(POL_EINVAL) || result == R(POL_ENOCTX))
          << what << " answers " << result;
    }
  }

  template <size_t I, class R, class... A>
  void without(const std::string& name, R (*function)(A...)) {
    using Arguments = std::tuple<A...>;
    using Argument = std::tuple_element_t<I, Arguments>;
    if constexpr (std::is_pointer_v<Argument> && !kOptional<Argument>) {
      const std::string what = name + " without argument " + std::to_string(I + 1);
      Arguments arguments{good<A>()...};
      std::get<I>(arguments) = nullptr;
      const std::string before = state();
      if constexpr (std::is_void_v<R>) {
        std::apply(function, arguments);
      } else {
        expect_refused(std::apply(function, arguments), what);
      }
      EXPECT_EQ(state(), before) << what;
    }
  }

  template <class R, class... A>
  void try_wrongly(const char* name, R (*function)(A...)) {
    if (skipped(name)) return;
    ++tried_;
    [&]<size_t... I>(std::index_sequence<I...>) { (without<I>(name, function), ...); }
    (std::index_sequence_for<A...>());
    // A record that is registered nowhere is removed from nothing.
    if (std::string_view(name).find("user_remove") != std::string_view::npos &&
        std::string_view(name) != "pol_site_list_user_remove") {
      std::tuple<A...> arguments{good<A>()...};
      const std::string before = state();
      if constexpr (std::is_same_v<R, uint32_t>) {
        EXPECT_EQ(std::apply(function, arguments), POL_EINVAL) << name;
      }
      EXPECT_EQ(state(), before) << name;
    }
  }

  template <class Data>
  void try_wrongly(const char* /*name*/, const Data* /*exported data*/) {}

  static bool skipped(std::string_view name) {
    // Readers take what the schema bounds, and end the process on what it does not allow; so do
    // forwarding policies on other kinds. The exchange with the agent is tried where an agent is.
    for (std::string_view prefix :
         {"pol_config_", "pol_fwd_entry_find", "pol_fwd_entry_seq_", "pol_fwd_entry_sla_class_add",
          "pol_fwd_policy_", "pol_fwd_block_", "pol_fwd_vpn_", "pol_fwd_eval_", "pol_fwd_upd_",
          "pol_fwd_queue_", "pol_show_", "pol_xml_", "pol_yarrow_"}) {
      if (name.starts_with(prefix)) return true;
    }
    if (name.starts_with("pol_fwd_entry_") && name.ends_with("_upd")) return true;
    // Requires its arguments; compares what it is given.
    return name == "pol_exec_route" || name == "pol_entry_cmp";
  }

  t_pol_block* policy_ = nullptr;
  t_pol_entry* entry_ = nullptr;
  t_pol_user* user_ = nullptr;
  t_pol_list_user* list_user_ = nullptr;
  t_tloc_id tloc_ = {};
  t_pol_pfx_record record_ = {};
  int tried_ = 0;
};

TEST_F(MisuseTest, ANullForWhatIsNeededChangesNothing) {
#define EXPORTED(name) try_wrongly(#name, &(name));
#include "exported.inc"
#undef EXPORTED
  EXPECT_GT(tried_, 200);
  pol_list_unregister(list_user_);
}

// In turn on one list in two roles, then on another: a record is where it was put last.
TEST_F(MisuseTest, ARecordAddedTwiceStandsOnce) {
  t_pol_clause_user record = {};
  record.block = policy_;
  t_vpn_list* first = pol_vpn_list_match_user_add(ctx, kName, &record);
  EXPECT_EQ(pol_vpn_list_match_user_add(ctx, kName, &record), first);
  EXPECT_EQ(pol_vpn_list_action_user_remove(ctx, first, &record), POL_EINVAL);
  EXPECT_EQ(pol_vpn_list_action_user_add(ctx, kName, &record), first);
  EXPECT_TRUE(first->match_users.empty());
  t_vpn_list* second = pol_vpn_list_match_user_add(ctx, "second", &record);
  EXPECT_TRUE(first->action_users.empty());
  EXPECT_EQ(pol_vpn_list_match_user_remove(ctx, first, &record), POL_EINVAL);
  EXPECT_EQ(pol_vpn_list_match_user_remove(ctx, second, &record), POL_OK);
  EXPECT_EQ(pol_vpn_list_match_user_remove(ctx, first, &record), POL_EINVAL);
  // The same of users of a policy.
  EXPECT_EQ(pol_block_user_add(ctx, "other", POL_KIND_ROUTE, user_), nullptr);
  t_pol_block* other = block("other");
  pol_block_user_delete(ctx, other, user_);
  EXPECT_EQ(user_->block, policy_);
  // A data policy does without the VPN list that its record was taken off.
  block(kName, POL_KIND_DATA);
  t_pol_fwd_vpn_entry* vpn = pol_fwd_vpn_find_or_create(ctx, kName, POL_KIND_DATA, kName);
  t_vpn_list* list = vpn->vpn_list;
  EXPECT_EQ(pol_vpn_list_fwd_pol_user_remove(ctx, list, vpn), POL_OK);
  EXPECT_EQ(pol_vpn_list_fwd_pol_user_remove(ctx, list, vpn), POL_EINVAL);
  EXPECT_NE(state().find("(list: (nil))"), std::string::npos);
  pol_list_unregister(list_user_);
}

}  // namespace
