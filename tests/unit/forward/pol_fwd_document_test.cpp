// SPDX-License-Identifier: Apache-2.0
#include <regex>
#include <set>

#include "exchange/pol_xml_config_internal.h"
#include "forward/pol_fwd_ref.h"
#include "support/agent_schema.h"
#include "support/forward_fixture.h"
#include "support/golden.h"

namespace {

// What was logged, without priority, function and line.
std::string taken_log() {
  return std::regex_replace(seams::take_log(), std::regex("191 \\w+\\[\\d+\\]: \\[POL\\] "), "");
}

class DocumentTest : public ForwardTest {
 protected:
  void TearDown() override {
    for (t_pol_entry* made : entries_) {
      for (const pol::FwdRef* ref : {&pol::kFwdDnsAppList, &pol::kFwdSaasAppList}) {
        pol::fwd_ref_drop(ctx, made, *ref);
      }
    }
    ForwardTest::TearDown();
  }

  static void cache(int32_t type, const std::string& name, const std::string& text) {
    t_pol_xml_config* config = pol_xml_config_find_or_create(type, name.c_str());
    pol_free(config->text, pol::MEM_CONFIG_XML);
    config->size = static_cast<uint32_t>(text.size());
    config->text = static_cast<char*>(pol_malloc(text.size() + 1, pol::MEM_CONFIG_XML));
    memcpy(config->text, text.c_str(), text.size() + 1);
  }

  t_pol_entry* sequence(const char* policy, uint32_t kind, const char* vpn_list, int number) {
    block(policy, kind);
    pol_fwd_vpn_find_or_create(ctx, policy, kind, vpn_list);
    cache(POL_XML_VPN_LIST, vpn_list, std::string("<vpn-list>") + vpn_list + "</vpn-list>");
    entries_.push_back(pol_fwd_entry_find_or_create(ctx, policy, kind, vpn_list, number));
    return entries_.back();
  }

  void name(t_pol_entry* from, const pol::FwdRef& ref, int32_t type, const std::string& object) {
    ASSERT_NE(pol::fwd_ref_add(ctx, from, object.c_str(), &changed, ref), nullptr);
    std::string tag = pol_fwd_type2headerstr[type];
    cache(type, object, tag + object + "</" + tag.substr(1));
  }

  // What it names of each kind, some in several roles.
  void name_all(t_pol_entry* from) {
    name(from, pol::kFwdTlocList, POL_XML_TLOC_LIST, "tlocs");
    name(from, pol::kFwdPolicer, POL_XML_POLICER, "shape");
    name(from, pol::kFwdSlaClass, POL_XML_SLA_CLASS, "gold");
    name(from, pol::kFwdDstPfx6, POL_XML_DATA_IPV6_PREFIX_LIST, "six");
    name(from, pol::kFwdSrcPfx6, POL_XML_DATA_IPV6_PREFIX_LIST, "six");
    name(from, pol::kFwdDstPfx, POL_XML_DATA_PREFIX_LIST, "far");
    name(from, pol::kFwdSrcPfx, POL_XML_DATA_PREFIX_LIST, "near");
    name(from, pol::kFwdSaasAppList, POL_XML_APP_LIST, "mail");
    name(from, pol::kFwdDnsAppList, POL_XML_APP_LIST, "web");
    name(from, pol::kFwdAppList, POL_XML_APP_LIST, "web");
  }

  t_pol_user* applied(const char* policy, uint32_t kind, uint32_t direction, int32_t type,
                      const std::string& text) {
    cache(type, policy, text);
    return add_user("fwd", policy, nullptr, direction, kind);
  }

  // With POL_OK the text, otherwise the status; "(none)" where there is none.
  static std::string populated(const t_pol_user* service, const t_pol_user* tunnel,
                               const t_pol_user* app_route, const t_pol_user* cflowd) {
    uint32_t length = 77;
    char none = 0;
    char* text = &none;
    uint32_t status = pol_fwd_policy_populate(service, tunnel, app_route, cflowd, &length, &text);
    EXPECT_EQ(text != nullptr ? strlen(text) : 0, length);
    std::string result = text != nullptr ? text : "(none)";
    pol_free(text, pol::MEM_PEER_XML);
    return status == POL_OK ? result : std::to_string(status) + result;
  }

 private:
  std::vector<t_pol_entry*> entries_;
};

TEST_F(DocumentTest, HasEachPolicyWithItsDirectionAndEachObjectOnce) {
  name_all(sequence("D", POL_KIND_DATA, "v2", 10));
  name(sequence("D", POL_KIND_DATA, "v1", 20), pol::kFwdSrcPfx, POL_XML_DATA_PREFIX_LIST, "far");
  name(sequence("E", POL_KIND_DATA, "v1", 10), pol::kFwdSrcPfx, POL_XML_DATA_PREFIX_LIST, "other");
  name(sequence("A", POL_KIND_PERF_ROUTE, "v1", 10), pol::kFwdSlaClass, POL_XML_SLA_CLASS,
       "silver");
  t_pol_user* d_in = applied("D", POL_KIND_DATA, POL_DIR_IN, POL_XML_DATA_POLICY, "<data-policy>D");
  t_pol_user* d_out =
      applied("D", POL_KIND_DATA, POL_DIR_OUT, POL_XML_DATA_POLICY, "<data-policy>D");
  t_pol_user* e = applied("E", POL_KIND_DATA, POL_DIR_NONE, POL_XML_DATA_POLICY, "<data-policy>E");
  t_pol_user* a = applied("A", POL_KIND_PERF_ROUTE, POL_DIR_IN, POL_XML_APP_ROUTE_POLICY,
                          "<app-route-policy>A</app-route-policy>");
  t_pol_user* c = applied("C", POL_KIND_CFLOWD, POL_DIR_IN, POL_XML_CFLOWD_TEMPLATE,
                          "<cflowd-template>C</cflowd-template>");
  t_pol_user* without = applied("X", POL_KIND_DATA, 7, POL_XML_DATA_POLICY, "<data-policy>X");
  pol_block_user_delete(ctx, without->block, without);
  ASSERT_EQ(without->block, nullptr);

  const struct {
    const char* title;
    const t_pol_user* policies[4];
  } kCases[] = {
      {"nothing applied", {nullptr, nullptr, nullptr, nullptr}},
      {"a user whose policy is gone", {without, without, nullptr, nullptr}},
      {"from the service side", {d_in, nullptr, nullptr, nullptr}},
      {"from the tunnel side", {without, e, nullptr, nullptr}},
      {"two policies", {e, d_in, nullptr, nullptr}},
      {"one policy on both sides", {d_in, d_out, nullptr, nullptr}},
      {"no lists", {nullptr, nullptr, nullptr, c}},
      {"app-route and cflowd", {nullptr, nullptr, a, c}},
      {"all", {d_in, e, a, c}},
  };
  std::string told;
  for (const auto& row : kCases) {
    const auto& [service, tunnel, app_route, cflowd] = row.policies;
    told += std::string(row.title) + "\n  " +
            std::regex_replace(populated(service, tunnel, app_route, cflowd),
                               std::regex("(</[a-z0-9-]+>)<(?!/)"), "$1\n  <") +
            "\n";
  }
  pol_debug_set(3);
  taken_log();
  populated(d_in, e, a, c);
  std::string log = taken_log();
  told += std::regex_replace(log, std::regex("Get xml config[^\n]*\n"), "");
  expect_golden("document/populated.ok", told);
}

TEST_F(DocumentTest, NamesOfAnyLengthAreToldApartByTheirLastCharacter) {
  const std::string stem(62, 'n');
  t_pol_entry* entry = sequence("D", POL_KIND_DATA, "v", 10);
  name(entry, pol::kFwdSrcPfx, POL_XML_DATA_PREFIX_LIST, stem + "a");
  name(entry, pol::kFwdDstPfx, POL_XML_DATA_PREFIX_LIST, stem + "b");
  name(entry, pol::kFwdSrcPfx6, POL_XML_DATA_IPV6_PREFIX_LIST, stem + "b");
  // One of which no text has come yet adds nothing.
  pol::fwd_ref_add(ctx, entry, "textless", &changed, pol::kFwdDstPfx6);
  pol_xml_config_find_or_create(POL_XML_DATA_IPV6_PREFIX_LIST, "textless");
  t_pol_user* user = applied("D", POL_KIND_DATA, POL_DIR_IN, POL_XML_DATA_POLICY, "");
  auto in = [](const std::string& tag, const std::string& text) {
    return "<" + tag + ">" + text + "</" + tag + ">";
  };
  EXPECT_EQ(populated(nullptr, user, nullptr, nullptr),
            in("direction", "from-tunnel") + "</data-policy>" +
                in("lists", in("vpn-list", "v") + in("data-prefix-list", stem + "a") +
                                in("data-prefix-list", stem + "b") +
                                in("data-ipv6-prefix-list", stem + "b")));
}

// Texts that outgrow every buffer, lists that outgrow the pieces, and a footer that does by itself.
TEST_F(DocumentTest, AnyAllocationMayFailAndNothingIsLeftOver) {
  std::string lists;
  for (uint32_t i = 0; i < 260; ++i) {
    const std::string list = "p" + std::to_string(i);
    name(sequence("D", POL_KIND_DATA, "v", 10 + i), pol::kFwdSrcPfx, POL_XML_DATA_PREFIX_LIST,
         list);
    lists += "<" + list + "/>";
    cache(POL_XML_DATA_PREFIX_LIST, list, "<" + list + "/>");
  }
  const std::string data(2040, 'd');
  const std::string app(30000, 'a');
  t_pol_user* d = applied("D", POL_KIND_DATA, POL_DIR_IN, POL_XML_DATA_POLICY, data);
  t_pol_user* a = applied("A", POL_KIND_PERF_ROUTE, POL_DIR_IN, POL_XML_APP_ROUTE_POLICY, app);
  const std::string whole = data + "<direction>from-service</direction></data-policy>" + app +
                            "<lists><vpn-list>v</vpn-list>" + lists + "</lists>";
  pol_debug_set(1);
  taken_log();
  std::set<std::string> logs;
  int nth = 0;
  uint64_t before = 0;
  for (bool hit = true; hit;) {
    before = g_pol_mem_info[pol::MEM_PEER_XML].allocs;
    UncountedFailures texts(pol::MEM_PEER_XML);
    UncountedFailures names(pol::MEM_LIST_NAME);
    seams::Fail fail(++nth);
    const std::string result = populated(d, nullptr, a, nullptr);
    hit = fail.hit();
    EXPECT_EQ(result, hit ? std::to_string(POL_ENOMEM) + "(none)" : whole) << nth;
    // The one that failed is counted and was never there.
    EXPECT_LE(current(pol::MEM_PEER_XML) + current(pol::MEM_LIST_NAME), hit ? 1u : 0u) << nth;
    logs.insert(taken_log());
  }
  EXPECT_EQ(g_pol_mem_info[pol::MEM_PEER_XML].allocs - before, 3u) << "two texts, and the whole";
  const std::string end = "Error fetching xml policy and lists (error: 1)\n";
  const std::string list_end = "Error getting list xml config (error:1)\n" + end;
  const std::string no_text = "Could not append policy (error:0)\n";
  const std::set<std::string> kLogs = {
      "",
      end,
      no_text + "Error getting policy xml string (error:1)\n" + end,
      "Error adding footer to data policy (error:1)\n" + end,
      list_end,
      no_text + "Error getting list xml string (error:1)\n" + list_end,
      "Error allocating memory for policy XML config of " + std::to_string(whole.size() + 1) +
          " bytes\n",
  };
  EXPECT_EQ(logs, kLogs);
}

TEST_F(DocumentTest, EnvelopesWrapABodyAndTakeOutWhatTheSchemaDoesNotKnow) {
  ASSERT_TRUE(load_agent_schema());
  const std::string config = "<config xmlns=\"urn:norvik:config:1.0\">";
  const std::string policy = "<policy-from-pellux xmlns=\"urn:zenodra:policy\">";
  const std::string show = "<policy xmlns=\"urn:zenodra:policy\"><from-pellux>";
  const std::string end = "</policy-from-pellux>";
  const std::string show_end = "</from-pellux></policy>";
  const std::string known = "<policer><name>p</name></policer>";
  const std::string head = "<?xml version=\"1.0\"?>\n";
  const struct {
    decltype(pol_fwd_policy_hdr_add)* add;
    std::string body;
    std::string text;
  } kCases[] = {
      {pol_fwd_policy_hdr_add, "(none)", config + policy + end + "</config>"},
      {pol_show_fwd_policy_hdr_add, "(none)", config + show + show_end + "</config>"},
      {pol_fwd_policy_hdr_add, known, config + policy + known + end + "</config>"},
      {pol_show_fwd_policy_hdr_add, known, config + show + known + show_end + "</config>"},
      {pol_fwd_policy_hdr_add, known + "<new/>", head + policy + known + end + "\n"},
      {pol_show_fwd_policy_hdr_add, known + "<new/>", head + show + known + show_end + "\n"},
      {pol_fwd_policy_hdr_add, "no <XML", config + policy + "no <XML" + end + "</config>"},
  };
  for (const auto& row : kCases) {
    SCOPED_TRACE(row.text);
    const std::string longer = row.body + "<";  // what is behind the body's length is none of it
    const char* body = row.body != "(none)" ? longer.c_str() : nullptr;
    const auto size = static_cast<uint32_t>(row.body.size());
    UncountedFailures failures(pol::MEM_SET_XML);
    for (int nth = 1;; ++nth) {
      seams::Fail fail(nth);
      uint32_t length = 77;
      char* text = row.add(body, size, &length);
      EXPECT_EQ(length, text != nullptr ? strlen(text) : 0);
      // The schema's answers need not be kept.
      if (!fail.hit() || text != nullptr) {
        EXPECT_EQ(text != nullptr ? text : "(none)", row.text);
      }
      pol_free(text, pol::MEM_SET_XML);
      if (!fail.hit()) break;
    }
    EXPECT_LE(current(pol::MEM_SET_XML), 2u) << "those that failed";
  }
}

using FetchTest = ForwardTest;

// What scripts do not see: they take the mark off after every line.
TEST_F(FetchTest, PoliciesAreFetchedOnceKindByKind) {
  for (const char* name : {"z", "a"}) {
    for (uint32_t kind : {POL_KIND_CFLOWD, POL_KIND_ROUTE, POL_KIND_PERF_ROUTE, POL_KIND_DATA}) {
      block(name, kind);
    }
  }
  std::string taken;
  for (int i = 0; i < 2; ++i) {
    pol_fwd_queue_xml_config(ctx);
    for (const Request& asked : take_requests()) {
      taken += std::to_string(asked.item.type) + asked.item.name + " ";
    }
  }
  EXPECT_EQ(taken, "1a 1p 1z 2a 2z 3a 3z 4v ");
}

TEST_F(FetchTest, AnyQueueWithARequestIsWorkLeft) {
  EXPECT_EQ(pol_fwd_policy_is_yarrow_updated(), 1);
  for (pol::ThreadQueue queue : {pol::QUEUE_LABEL_SET, pol::QUEUE_LABEL_FETCH, pol::QUEUE_FETCH}) {
    if (queue == pol::QUEUE_LABEL_SET) {
      pol::thread_push_labels(&ctx->thread, {});
    } else {
      pol::thread_push_fetch(&ctx->thread, queue, POL_XML_POLICER, "p");
    }
    EXPECT_EQ(pol_fwd_policy_is_yarrow_updated(), 0) << queue;
    char bytes[64];
    EXPECT_EQ(read(ctx->thread.read_fd, bytes, sizeof bytes), 1) << "woken once a request";
    take_requests();
    EXPECT_EQ(pol_fwd_policy_is_yarrow_updated(), 1) << queue;
  }
}

}  // namespace
