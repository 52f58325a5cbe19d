// SPDX-License-Identifier: Apache-2.0
#include "forwarding.h"

#include <fmt/format.h>
#include <libxml/parser.h>

#include <memory>
#include <string_view>
#include <vector>

#include "address_text.h"
#include "input_error.h"
#include "output.h"
#include "policy/pol_context.h"
#include "policy/pol_fwd_document.h"
#include "policy/pol_user.h"
#include "policy_source.h"

namespace polctl {

namespace {

struct RoleRow {
  const char* word;
  uint32_t kind;
  std::string_view path;
};

// In the order of the roles.
constexpr RoleRow kRoleRows[] = {
    {"from-service", POL_KIND_DATA, "/policy/data-policy"},
    {"from-tunnel", POL_KIND_DATA, "/policy/data-policy"},
    {"app-route", POL_KIND_PERF_ROUTE, "/policy/app-route-policy"},
    {"cflowd", POL_KIND_CFLOWD, "/policy/cflowd-template"},
};

constexpr uint32_t kBodyMemory = 6;      // of pol_fwd_policy_populate's text
constexpr uint32_t kEnvelopeMemory = 7;  // of the envelopes

struct FreeEnvelope {
  void operator()(char* text) const { pol_free(text, kEnvelopeMemory); }
};
using Envelope = std::unique_ptr<char, FreeEnvelope>;

std::string in_envelope(char* (*add)(const char*, uint32_t, uint32_t*), const std::string& body) {
  uint32_t length = 0;
  Envelope text(
      add(body.empty() ? nullptr : body.data(), static_cast<uint32_t>(body.size()), &length));
  if (!text) throw InputError("polctl: error: the document cannot be put together: no memory");
  return {text.get(), length};
}

void choose(const char* option, uint32_t kind, const std::string& origin, std::string* name) {
  std::vector<std::string> names = policy_names(kind);
  if (names.size() > 1) {
    throw InputError(fmt::format("{}: error: it has {} {} policies (expected {} with one of: {})",
                                 origin, names.size(),
                                 kind == POL_KIND_DATA         ? "data"
                                 : kind == POL_KIND_PERF_ROUTE ? "app-route"
                                                               : "cflowd",
                                 option, joined(names, ", ")));
  }
  if (!names.empty()) *name = names.front();
}

}  // namespace

ForwardingManager::ForwardingManager(const AppliedPolicies& applied,
                                     const ConfiguredNames& configured)
    : by_name_(applied.any()) {
  applied_[kFromService].policy = applied.from_service;
  applied_[kFromTunnel].policy = applied.from_tunnel;
  applied_[kAppRoute].policy = applied.app_route;
  applied_[kCflowd].policy = applied.cflowd;
  try {
    follow(configured);
  } catch (...) {
    leave();
    throw;
  }
}

ForwardingManager::~ForwardingManager() { leave(); }

void ForwardingManager::leave() {
  for (Applied& applied : applied_) pol_unregister(&applied.user);
}

void ForwardingManager::enter(Role role) {
  Applied& applied = applied_[role];
  if (applied.policy.empty() || applied.user != nullptr) return;
  applied.user = register_user(std::string("forwarding ") + kRoleRows[role].word, applied.policy,
                               kRoleRows[role].kind, POL_DIR_NONE, note_call, this);
}

void ForwardingManager::note_call(t_pol_user* /*user*/, uint64_t manager) noexcept {
  ++reinterpret_cast<ForwardingManager*>(manager)->calls_;
}

void ForwardingManager::follow(const ConfiguredNames& configured) {
  for (size_t role = 0; role < kRoles; ++role) {
    Applied& applied = applied_[role];
    auto found = configured.find(kRoleRows[role].path);
    static const std::set<std::string> none;
    const std::set<std::string>& names = found != configured.end() ? found->second : none;
    if (names.count(applied.policy) == 0) pol_unregister(&applied.user);
    if (!by_name_ && names.count(applied.policy) == 0) {
      applied.policy = names.size() == 1 ? *names.begin() : "";
    }
    if (names.count(applied.policy) != 0) enter(static_cast<Role>(role));
  }
}

std::vector<std::string> ForwardingManager::awaited() const {
  std::vector<std::string> names;
  for (size_t role = 0; role < kRoles; ++role) {
    const Applied& applied = applied_[role];
    if (applied.policy.empty() || applied.user != nullptr) continue;
    std::string_view path = kRoleRows[role].path;
    names.push_back(
        fmt::format("{} {}", path.substr(path.rfind('/') + 1), in_quotes(applied.policy)));
  }
  return names;
}

std::string ForwardingManager::body() const {
  uint32_t length = 0;
  char* text = nullptr;
  uint32_t status =
      pol_fwd_policy_populate(applied_[kFromService].user, applied_[kFromTunnel].user,
                              applied_[kAppRoute].user, applied_[kCflowd].user, &length, &text);
  std::string body(text != nullptr ? text : "", text != nullptr ? length : 0);
  pol_free(text, kBodyMemory);
  if (status != POL_OK) {
    throw InputError(
        fmt::format("polctl: error: the document cannot be put together (error {})", status));
  }
  return body;
}

std::string ForwardingManager::document() const {
  return in_envelope(pol_fwd_policy_hdr_add, body());
}

std::string ForwardingManager::show_data() const {
  return in_envelope(pol_show_fwd_policy_hdr_add, body());
}

AppliedPolicies applied_or_only(const AppliedPolicies& named, const std::string& origin) {
  AppliedPolicies applied = named;
  if (!named.any()) {
    choose("--from-service or --from-tunnel", POL_KIND_DATA, origin, &applied.from_service);
    applied.from_tunnel = applied.from_service;
    choose("--app-route", POL_KIND_PERF_ROUTE, origin, &applied.app_route);
    choose("--cflowd", POL_KIND_CFLOWD, origin, &applied.cflowd);
  }
  struct {
    const std::string& name;
    uint32_t kind;
  } const all[] = {{applied.from_service, POL_KIND_DATA},
                   {applied.from_tunnel, POL_KIND_DATA},
                   {applied.app_route, POL_KIND_PERF_ROUTE},
                   {applied.cflowd, POL_KIND_CFLOWD}};
  for (const auto& each : all) {
    if (!each.name.empty()) require_policy(each.name, each.kind, origin);
  }
  return applied;
}

std::string pretty_xml(const std::string& text) {
  constexpr int kOptions =
      XML_PARSE_NONET | XML_PARSE_NOBLANKS | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
  std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> document(
      xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr, kOptions),
      xmlFreeDoc);
  if (!document) throw InputError("polctl: error: the document is no XML");
  xmlChar* laid_out = nullptr;
  int size = 0;
  xmlDocDumpFormatMemory(document.get(), &laid_out, &size, 1);
  std::string result(reinterpret_cast<const char*>(laid_out), static_cast<size_t>(size));
  xmlFree(laid_out);
  return result;
}

}  // namespace polctl
