// SPDX-License-Identifier: Apache-2.0
#include "support/script.h"

#include <optional>
#include <type_traits>

#include "forward/pol_fwd_block_internal.h"

namespace {

using Args = ScriptTest::Args;

t_ipaddr address(const std::string& text) {
  t_ipaddr addr = {};
  uint32_t v4 = 0;
  if (text.find(':') != text.npos) {
    addr.family = KEL_AF_INET6;
    inet_pton(AF_INET6, text.c_str(), addr.addr.v6);
  } else if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
    addr.family = KEL_AF_INET;
    addr.addr.v4 = ntohl(v4);
  } else {  // family 77, say
    addr.family = static_cast<uint8_t>(atoi(text.c_str()));
    addr.addr.v4 = 1;
  }
  return addr;
}

template <class List>
List* named(t_pol_ctx* ctx, pol::NamedTree<List> t_pol_ctx::*lists, const std::string& name) {
  return ctx != nullptr ? pol::named_find(ctx->*lists, name.c_str()) : nullptr;
}

template <class T>
T arg(Args& args) {
  if constexpr (std::is_same_v<T, t_pol_ctx*>) {
    return args.script->context();
  } else if constexpr (std::is_same_v<T, uint8_t*>) {
    return args.script->changed_flag();
  } else if constexpr (std::is_same_v<T, const char*>) {
    return args.text();
  } else if constexpr (std::is_integral_v<T>) {
    return static_cast<T>(args.number());
  } else if constexpr (std::is_same_v<T, t_pol_block*>) {
    return args.script->block_at(args.take());
  } else if constexpr (std::is_same_v<T, t_pol_entry*> || std::is_same_v<T, const t_pol_entry*>) {
    return args.script->entry_at(args.take());
  } else if constexpr (std::is_same_v<T, t_pol_fwd_user*>) {
    const std::string path = args.take();
    if (path == "left") return args.script->left();
    t_pol_entry* entry = args.script->entry_at(path);
    return entry != nullptr ? entry->fwd.user : nullptr;
  } else if constexpr (std::is_same_v<T, t_pol_user*>) {
    return args.script->user_at(args.take());
  } else if constexpr (std::is_same_v<T, const t_pol_list_user*>) {
    return args.script->outside();
  } else if constexpr (std::is_same_v<T, void*>) {
    return nullptr;
  } else if constexpr (std::is_same_v<T, t_app_list*>) {
    return named(args.script->context(), &t_pol_ctx::app_lists, args.take());
  } else if constexpr (std::is_same_v<T, t_fwd_pfx_list*>) {
    return named(args.script->context(), &t_pol_ctx::fwd_pfx_lists, args.take());
  } else {
    const std::string word = args.take();
    if (word == "-") return nullptr;
    if constexpr (std::is_same_v<T, const t_tloc_id*>) {
      return &args.tlocs.emplace_back(script::tloc(word));
    } else if constexpr (std::is_same_v<T, const t_ipaddr*>) {
      return &args.addresses.emplace_back(address(word));
    } else {
      static_assert(std::is_same_v<T, const t_pol_pfx_record*>);
      return &args.prefixes.emplace_back(script::prefix(word));
    }
  }
}

std::string answer(const void* made) { return made == nullptr ? "null" : ""; }
template <class T, class = std::enable_if_t<std::is_integral_v<T>>>
std::string answer(T status) {
  return status == 0 ? "" : "answers " + std::to_string(status);
}

template <auto kCall, class R, class... T>
std::string spread(Args& args, R (* /*type*/)(T...)) {
  std::tuple<T...> values{arg<T>(args)...};
  auto made = [&values] { return std::apply(kCall, values); };
  if constexpr (std::is_void_v<R>) {
    script::armed(args, made);
    return "";
  } else {
    return answer(script::armed(args, made));
  }
}

template <auto kCall>
std::string wrapped(Args& args) {
  return spread<kCall>(args, kCall);
}

// What kind of word a parameter takes.
template <class T>
constexpr char letter() {
  if (std::is_same_v<T, t_pol_ctx*> || std::is_same_v<T, uint8_t*>) return 0;
  if (std::is_integral_v<T>) return 'n';
  if (std::is_same_v<T, t_pol_block*>) return 'b';
  if (std::is_same_v<T, t_pol_entry*> || std::is_same_v<T, const t_pol_entry*>) return 'e';
  if (std::is_same_v<T, t_pol_fwd_user*>) return 'f';
  if (std::is_same_v<T, t_pol_user*>) return 'u';
  if (std::is_same_v<T, const t_tloc_id*>) return 't';
  if (std::is_same_v<T, const t_ipaddr*>) return 'a';
  if (std::is_same_v<T, const t_pol_pfx_record*>) return 'p';
  if (std::is_same_v<T, void*> || std::is_same_v<T, const t_pol_list_user*>) return 0;
  return 's';
}

template <class R, class... T>
std::string letters(R (* /*type*/)(T...)) {
  std::string all;
  for (const char one : {letter<T>()..., char{0}}) {
    if (one != 0) all += one;
  }
  return all;
}

struct Call {
  std::string (*make)(Args&);
  std::string words;  // their kinds, in order
};

using Calls = std::map<std::string, Call>;

// Several a line.
template <class... Call>
Calls calls(Call... call) {
  return {call...};
}

#define CALL(name) Calls::value_type(#name, {wrapped<pol_##name>, letters(pol_##name)})
#define ADD_AND_DELETE(name) CALL(entry_##name##_add), CALL(entry_##name##_delete)
#define KEPT(name) CALL(name##_cfg_del), CALL(name##_main_deinit)
#define LIST(name) KEPT(name), CALL(name##_entry_change)

const Calls kCalls = calls(
    CALL(site_list_add_entry), CALL(site_list_del_entry), KEPT(site_list), CALL(vpn_list_add_entry),
    CALL(vpn_list_del_entry), KEPT(vpn_list), CALL(tloc_list_add_entry), CALL(tloc_list_del_entry),
    KEPT(tloc_list), CALL(color_list_add_entry), CALL(color_list_del_entry), KEPT(color_list),
    CALL(pfx_list_entry_add), CALL(pfx_list_del_entry), KEPT(pfx_list), LIST(app_list),
    LIST(fwd_pfx_list), LIST(fwd_pfx6_list), LIST(fwd_sla_class), LIST(fwd_policer),
    LIST(fwd_app_id), CALL(block_find_or_create), CALL(block_find_and_delete),
    CALL(block_default_action_add), CALL(block_default_action_delete), CALL(block_user_notify_all),
    CALL(block_next), CALL(user_chg_list_notify_all), CALL(user_chg_list_add), CALL(user_notify),
    CALL(handle_sets_tloc), CALL(handle_sets_service), CALL(handle_sets_tloc_list),
    CALL(entry_find_or_create), CALL(entry_find_and_delete), CALL(entry_action_add),
    CALL(entry_set_add), CALL(entry_set_delete), CALL(entry_match_add), CALL(entry_match_delete),
    CALL(entry_next), ADD_AND_DELETE(match_tag), ADD_AND_DELETE(match_preference),
    ADD_AND_DELETE(match_site), ADD_AND_DELETE(match_domain), ADD_AND_DELETE(match_vpn_id),
    ADD_AND_DELETE(match_carrier), ADD_AND_DELETE(match_group), ADD_AND_DELETE(match_src_port),
    ADD_AND_DELETE(match_dst_port), ADD_AND_DELETE(match_dscp), ADD_AND_DELETE(match_color),
    ADD_AND_DELETE(match_origin), ADD_AND_DELETE(match_proto), ADD_AND_DELETE(match_tloc),
    ADD_AND_DELETE(match_originator), ADD_AND_DELETE(match_site_list),
    ADD_AND_DELETE(match_tloc_list), ADD_AND_DELETE(match_pfx_list), ADD_AND_DELETE(match_vpn_list),
    ADD_AND_DELETE(match_color_list), ADD_AND_DELETE(set_tag), ADD_AND_DELETE(set_preference),
    ADD_AND_DELETE(set_vpn_id), ADD_AND_DELETE(set_vpn_list), ADD_AND_DELETE(set_tloc),
    ADD_AND_DELETE(set_tloc_list), ADD_AND_DELETE(set_service), CALL(fwd_vpn_find_or_create),
    CALL(fwd_vpn_find_and_delete), CALL(fwd_entry_find_or_create), CALL(fwd_entry_find_and_delete),
    CALL(fwd_entry_seq_mod), CALL(fwd_entry_app_list_upd), CALL(fwd_entry_dns_app_list_upd),
    CALL(fwd_entry_saas_app_list_upd), CALL(fwd_entry_src_pfx_upd), CALL(fwd_entry_dst_pfx_upd),
    CALL(fwd_entry_src_pfx6_upd), CALL(fwd_entry_dst_pfx6_upd), CALL(fwd_entry_app_id_upd),
    CALL(fwd_entry_sla_class_upd), CALL(fwd_entry_policer_upd), CALL(fwd_entry_match_src_list_add),
    CALL(fwd_entry_match_app_id_add), CALL(fwd_entry_sla_class_add),
    CALL(fwd_entry_sla_class_delete), CALL(fwd_entry_set_policer_add),
    CALL(fwd_entry_set_tloc_list_add), CALL(fwd_entry_set_tloc_list_delete),
    CALL(fwd_entry_vpn_upd), CALL(fwd_entry_tloc_upd), CALL(fwd_entry_svc_upd),
    CALL(fwd_entry_tloc_list_upd), CALL(fwd_upd_label), CALL(fwd_upd_label_set_entry),
    CALL(fwd_eval_label), CALL(fwd_queue_xml_config), CALL(fwd_block_init),
    CALL(config_update_tloc_list), CALL(list_site_match), CALL(app_list_user_add),
    CALL(app_list_user_remove), CALL(dns_app_list_user_remove), CALL(saas_app_list_user_remove),
    CALL(fwd_pfx_list_user_add), CALL(fwd_pfx_list_user_remove), CALL(fwd_pfx6_list_user_add),
    CALL(destroy));

template <uint32_t kKind, auto kReader>
uint32_t of_kind(void* host, t_pol_ctx* ctx, uint32_t op, uint8_t level, const pol_cfg_value* keys,
                 uint32_t num, const pol_cfg_tag_value* values) {
  return kReader(kKind, host, ctx, op, level, keys, static_cast<uint16_t>(num), values);
}

struct Reader {
  int level;
  t_pol_config_reader read;
};

const std::map<std::string, Reader> kReaders = {
    {"site-list", {1, pol_config_policy_site_list_name}},
    {"vpn-list", {1, pol_config_policy_vpn_list_name}},
    {"tloc-list", {1, pol_config_policy_tloc_list_name}},
    {"color-list", {1, pol_config_policy_color_list_name}},
    {"prefix-list", {1, pol_config_policy_prefix_list_name}},
    {"site", {2, pol_config_policy_site_list}},
    {"vpn", {2, pol_config_policy_vpn_list}},
    {"tloc", {2, pol_config_policy_tloc_list}},
    {"color", {2, pol_config_policy_color_list}},
    {"prefix", {2, pol_config_policy_prefix_list}},
    {"control", {1, pol_config_control_policy_read}},
    {"control-sequence", {2, pol_config_control_policy_seq_read}},
    {"match", {3, pol_config_control_policy_match_read}},
    {"membership", {1, pol_config_membership_policy_read}},
    {"membership-sequence", {2, pol_config_membership_policy_seq_read}},
    {"data", {1, of_kind<POL_KIND_DATA, pol_config_fwd_read>}},
    {"data-vpn", {2, of_kind<POL_KIND_DATA, pol_config_fwd_vpn_list_read>}},
    {"data-sequence", {3, of_kind<POL_KIND_DATA, pol_config_fwd_seq_read>}},
    {"app", {1, of_kind<POL_KIND_PERF_ROUTE, pol_config_fwd_read>}},
    {"app-vpn", {2, of_kind<POL_KIND_PERF_ROUTE, pol_config_fwd_vpn_list_read>}},
    {"app-sequence", {3, of_kind<POL_KIND_PERF_ROUTE, pol_config_fwd_seq_read>}},
    {"route-as-data", {1, of_kind<POL_KIND_ROUTE, pol_config_fwd_read>}},
    {"flows-vpn", {2, of_kind<POL_KIND_CFLOWD, pol_config_fwd_vpn_list_read>}},
    {"members-as-data-sequence", {3, of_kind<POL_KIND_MEMBERSHIP, pol_config_fwd_seq_read>}},
    {"cflowd", {1, pol_config_cflowd_template_read}},
    {"collector", {2, pol_config_cflowd_collector_read}},
    {"app-id", {1, pol_config_policy_app_id_read}},
    {"fwd-prefix-list", {1, pol_config_fwd_pfx_list_read}},
    {"fwd-prefix", {2, pol_config_fwd_pfx_list_ip_read}},
    {"fwd-prefix6-list", {1, pol_config_fwd_pfx6_list_read}},
    {"fwd-prefix6", {2, pol_config_fwd_pfx6_list_ip_read}},
    {"policer", {1, pol_config_fwd_policer_read}},
    {"app-list", {1, pol_config_app_list_read}},
    {"app-list-app", {2, pol_config_app_list_app_read}},
    {"app-list-family", {2, pol_config_app_list_app_family_read}},
    {"sla-class", {1, pol_config_policy_sla_class_read}},
};

}  // namespace

namespace script {

t_pol_pfx_record prefix(const std::string& text) {
  t_pol_pfx_record record = {};
  const size_t slash = text.find('/');
  unsigned length = 0, op = 0, min = 0, max = 0;
  sscanf(text.c_str() + slash, "/%u,%u,%u,%u", &length, &op, &min, &max);
  record.op = op;
  record.prefix = {address(text.substr(0, slash)), static_cast<uint8_t>(length)};
  record.min = static_cast<uint8_t>(min);
  record.max = static_cast<uint8_t>(max);
  return record;
}

t_tloc_id tloc(const std::string& text) {
  const size_t encap = text.rfind(':');
  const size_t color = text.rfind(':', encap - 1);
  t_tloc_id made = {};
  std::string host = text.substr(0, color);
  if (host[0] == '[') host = host.substr(1, host.size() - 2);
  const t_ipaddr addr = address(host);
  made.family = addr.family;
  memcpy(&made.addr, &addr.addr, sizeof made.addr);
  made.color = static_cast<uint8_t>(atoi(text.c_str() + color + 1));
  made.encap = static_cast<uint8_t>(atoi(text.c_str() + encap + 1));
  return made;
}

std::string call(Args& args) {
  auto known = kCalls.find(args.words[0]);
  if (known == kCalls.end()) {
    ADD_FAILURE() << "no such call: " << args.words[0];
    return "";
  }
  return known->second.make(args);
}

std::vector<std::pair<std::string, std::string>> known_calls() {
  std::vector<std::pair<std::string, std::string>> all;
  for (const auto& [name, call] : kCalls) all.emplace_back(name, call.words);
  return all;
}

std::vector<std::string> known_readers() {
  std::vector<std::string> all;
  for (const auto& [name, reader] : kReaders) all.push_back(name);
  return all;
}

uint32_t report(const std::string& reader, t_pol_ctx* ctx, uint32_t operation, int level,
                const cfg::Keys& keys, uint32_t count, const cfg::Leaves& leaves, Args* args) {
  const Reader& known = kReaders.at(reader);
  return armed(*args, [&] {
    return known.read(nullptr, ctx, operation,
                      static_cast<uint8_t>(level >= 0 ? level : known.level), keys.data(), count,
                      leaves.data());
  });
}

}  // namespace script
