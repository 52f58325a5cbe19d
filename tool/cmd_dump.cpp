// SPDX-License-Identifier: Apache-2.0
//
// polctl dump. The library prints to a command-line session; here the session is standard output.
#include <exception>
#include <string_view>

#include "commands.h"
#include "host/address_text.h"
#include "host/graph_model.h"
#include "host/input_error.h"
#include "live_client.h"
#include "policy/pol_dump.h"
#include "policy/pol_yarrow_thread.h"

namespace polctl {

namespace {

struct Topic {
  std::string_view name;
  int (*dump)(t_cli_user_ctx* cli, uint32_t ignored, int argc, char** argv);
};

constexpr Topic kTopics[] = {
    {"all", pol_dump_all},
    {"users", pol_dump_users},
    {"users-change-list", pol_dump_users_change_list},
    {"prefix-lists", pol_dump_pfx_list_all},
    {"tloc-lists", pol_dump_tloc_list_all},
    {"color-lists", pol_dump_color_list_all},
    {"site-lists", pol_dump_site_list_all},
    {"vpn-lists", pol_dump_vpn_list_all},
    {"route-policies", pol_dump_route_policies},
    {"membership-policies", pol_dump_membership_policies},
    {"cflowd-templates", pol_dump_cflowd_policies},
    {"forwarding-policies", pol_dump_fwd_policies},
    {"app-lists", pol_dump_app_list_all},
    {"data-prefix-lists", pol_dump_fwd_pfx_list_all},
    {"data-ipv6-prefix-lists", pol_dump_fwd_pfx6_list_all},
    {"sla-classes", pol_dump_fwd_sla_class_all},
    {"policers", pol_dump_fwd_policer_all},
    {"app-ids", pol_dump_fwd_app_id_all},
    {"agent-thread", pol_dump_yarrow_thread},
    {"xml-config", pol_dump_xml_config_all},
    {"memory", pol_dump_memory_info},
};

// The library is built without exceptions, so none may pass through it: what is wrong is kept and
// the session ends.
struct Session {
  Output* out;
  std::string problem;
  char last = '\n'; /* printed */
};

int write_text(void* arg, const char* text, size_t length) {
  Session* session = static_cast<Session*>(arg);
  if (session->out->gone()) return -1;
  if (length > 0) session->last = text[length - 1];
  try {
    session->out->write(printable_lines({text, length}));
  } catch (const std::exception& error) {
    session->problem = error.what();
    return -1;
  }
  return 0;
}

}  // namespace

std::vector<std::string> dump_topics() {
  std::vector<std::string> names;
  for (const Topic& topic : kTopics) names.emplace_back(topic.name);
  return names;
}

int answer_dump(const DumpOptions& options, Output* out) {
  Session session = {out, {}, '\n'};
  t_cli_user_ctx cli = {write_text, &session};
  for (const Topic& topic : kTopics) {
    if (topic.name == options.topic) topic.dump(&cli, 0, 0, nullptr);
  }
  if (!session.problem.empty()) throw InputError(session.problem);
  if (session.last != '\n') out->write("\n");
  return kDone;
}

namespace {

// What is not configured has no text; the others' are shown without waiting for it.
void settle_texts(PolicySource* source) {
  std::vector<std::string> absent = absent_objects(source->configured());
  source->settle(absent.empty() ? PolicySource::Settling::kTexts : PolicySource::Settling::kLabels);
  if (absent.empty()) return;
  fmt::print(stderr, "polctl: note: named, but not configured: {}; no text is fetched\n",
             joined(absent, ", "));
}

}  // namespace

int run_dump(const DumpOptions& options, Output* out) {
  if (!options.source.live.empty()) return ask_live(options.source.live, {options}, out);
  PolicyOptions from = options.source;
  // An agent of our own: its texts are shown too, where they are asked for.
  bool texts = options.topic == "all" || options.topic == "xml-config";
  from.worker = !from.config.empty() && texts;
  PolicySource source = load_policy(from);
  if (from.worker) settle_texts(&source);
  int status = answer_dump(options, out);
  out->flush();
  return status;
}

}  // namespace polctl
