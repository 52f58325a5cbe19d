// SPDX-License-Identifier: Apache-2.0
#include "policy_source.h"

#include <fmt/format.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <optional>

#include "address_text.h"
#include "graph_model.h"
#include "input_error.h"
#include "kel/string.h"
#include "near_word.h"
#include "output.h"
#include "policy/pol_block.h"
#include "policy/pol_context.h"
#include "policy/pol_fwd_document.h"
#include "policy/pol_test.h"
#include "policy/pol_user.h"
#include "policy/pol_util.h"
#include "tloc_resolver.h"
#include "yarrow/yarrow_types.h"

namespace polctl {

namespace {

constexpr size_t kNamesShown = 10;

constexpr int kSettleMs = 20'000;  // that the worker may take

constexpr int kAnswerMs = 60'000;  // an agent that holds much still answers within

// The first error of a policy file, and how many there are. Called by the library: no exception may
// pass through it.
struct FileErrors {
  int count = 0;
  uint32_t line = 0;
  std::string first;
};

void note_error(const t_pol_test_finding* finding, void* arg) noexcept {
  auto* errors = static_cast<FileErrors*>(arg);
  if (finding->severity != POL_TEST_ERROR || ++errors->count > 1) return;
  errors->line = finding->line;
  errors->first = finding->what;
}

void require_sound(const SourceFile& file, bool force) {
  FileErrors errors;
  pol_test_check_file(file.path().c_str(), note_error, &errors);
  if (errors.count == 0) return;
  std::string what = fmt::format("{} error{} in it", errors.count, errors.count == 1 ? "" : "s");
  if (force) {
    fmt::print(stderr, "polctl: note: {}: {}, and it is taken all the same\n",
               printable(file.name()), what);
    return;
  }
  throw InputError(
      fmt::format("{}:{}: error: {}, the first: {} (expected none; \"polctl check\" tells all, "
                  "--force takes it)",
                  file.name(), errors.line, what, errors.first));
}

std::string list_of(const std::vector<std::string>& names) {
  std::vector<std::string> shown;
  for (const std::string& name : names) {
    if (shown.size() == kNamesShown) {
      shown.push_back(fmt::format("{} more", names.size() - kNamesShown));
      break;
    }
    shown.push_back(in_quotes(name));
  }
  return joined(shown, ", ");
}

}  // namespace

std::string source_name(const PolicyOptions& options) {
  if (options.agent) return "agent";
  return options.policy_file.empty() ? joined(options.config, ",") : options.policy_file;
}

PolicySource::PolicySource(const PolicyOptions& options) {
  std::optional<SourceFile> policy_file;
  if (!options.policy_file.empty()) {
    policy_file.emplace(open_policy_file(options.policy_file));
    require_sound(*policy_file, options.force);
  }
  // The library writes every word of a policy file to the system log at debug priority. A device
  // wants that; a tool that reads a file of 100,000 lines does so only when asked.
  if (options.trace < 0) setlogmask(LOG_UPTO(LOG_INFO));
  if (options.policy_file.empty()) connect(options);
  pol_debug_set(static_cast<uint32_t>(std::max(options.trace, 0)));
  t_pol_callbacks callbacks = {resolve_service};
  if (pol_init(&callbacks) == nullptr) {
    throw InputError("polctl: error: the policy library could not be started: no memory");
  }
  try {
    if (live_) {
      live_->walk = std::make_unique<ConfigWalk>(g_pol_ctx_p);
      ConfigFeed::Batch batch = live_->feed->read(kAnswerMs);
      if (!batch) throw InputError("agent: error: it says nothing (expected its configuration)");
      live_->commit = yarrow_batch_commit_id(batch.get());
      live_->walk->take(batch.get());
    } else if (pol_test_parse_file(policy_file->path().c_str(), nullptr) != 0) {
      throw InputError(
          fmt::format("{}: error: cannot be read (expected a policy file)", options.policy_file));
    }
  } catch (...) {
    destroy();
    throw;
  }
}

PolicySource::~PolicySource() { destroy(); }

void PolicySource::destroy() {
  if (live_ && live_->walk) live_->walk->release();
  pol_destroy();
}

void PolicySource::connect(const PolicyOptions& options) {
  live_ = std::make_unique<LiveConfig>();
  if (options.agent) {
    live_->port = running_agent_port(options.agent_port);
  } else {
    live_->agent = std::make_unique<EmbeddedAgent>(options.listen, options.directory);
    live_->port = live_->agent->port();
  }
  live_->session = std::make_unique<ConfigSession>(live_->port);
  if (!options.agent && !options.config.empty()) {
    std::vector<ConfigFault> faults;
    SourceFiles files = open_configuration(options.config);
    live_->session->load(files, &faults);
    if (faults.empty()) live_->session->commit(files, &faults);
    if (!faults.empty()) throw_faults(faults);
  }
  live_->feed = std::make_unique<ConfigFeed>(live_->port);
  // The library's worker is not there yet; from now on it alone connects. By itself it goes to the
  // usual address, where its client finds the Unix socket too.
  if (!options.worker) {
    set_worker_port(live_->unreachable.port());
  } else if (!options.agent || live_->port != YARROW_PORT) {
    set_worker_port(live_->port);
  }
}

void PolicySource::settle(Settling what) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kSettleMs);
  do {
    if (what == Settling::kTexts) {
      std::vector<std::string> absent = absent_objects(configured());
      if (!absent.empty()) throw_absent(absent);
      pol_fwd_queue_xml_config(g_pol_ctx_p);
    }
    while (pol_fwd_policy_is_yarrow_updated() == 0) {
      if (std::chrono::steady_clock::now() > end) {
        throw InputError(fmt::format(
            "agent at port {}: error: the library's worker does not come to an end (expected an "
            "agent that answers within {} s)",
            live_->port, kSettleMs / 1000));
      }
      usleep(500);
    }
  } while (live_->feed->next(0, live_->walk.get()) >= 0);
}

void throw_absent(const std::vector<std::string>& absent) {
  constexpr size_t kShown = 5;
  std::vector<std::string> shown(absent.begin(), absent.begin() + std::min(absent.size(), kShown));
  if (absent.size() > kShown) shown.push_back(fmt::format("{} more", absent.size() - kShown));
  throw InputError(
      fmt::format("polctl: error: named, but not configured: {}; without them there is no whole "
                  "document (expected their configuration)",
                  joined(shown, ", ")));
}

t_pol_user* register_user(const std::string& name, const std::string& policy, uint32_t kind,
                          uint32_t direction, t_pol_change_cb change, void* arg,
                          t_pol_resolve_cb resolve) {
  t_pol_registration record = {};
  strlcpy(record.user_name, name.c_str(), sizeof record.user_name);
  strlcpy(record.policy_name, policy.c_str(), sizeof record.policy_name);
  record.kind = kind;
  record.direction = direction;
  record.change = change;
  record.resolve = resolve;
  record.user_arg = reinterpret_cast<uint64_t>(arg);
  t_pol_user* user = pol_register(&record);
  if (user == nullptr) throw InputError("polctl: error: cannot use the policy: no memory");
  return user;
}

std::vector<std::string> policy_names(uint32_t kind) {
  std::vector<std::string> names;
  for (t_pol_block* block = pol_block_first(g_pol_ctx_p, kind); block != nullptr;
       block = pol_block_next(g_pol_ctx_p, block, kind)) {
    names.emplace_back(pol_block_get_name(block));
  }
  return names;
}

std::vector<uint32_t> policy_sequences(const std::string& name, uint32_t kind) {
  std::vector<uint32_t> sequences;
  t_pol_block* block = pol_block_find(g_pol_ctx_p, name.c_str(), kind, nullptr);
  for (t_pol_entry* entry = pol_entry_first(g_pol_ctx_p, block); entry != nullptr;
       entry = pol_entry_next(g_pol_ctx_p, entry)) {
    sequences.push_back(pol_entry_get_sequence(entry));
  }
  return sequences;
}

uint32_t policy_sets(const std::string& name) {
  struct Sets {
    const std::string& name;
    const void* policy;
    uint32_t flags;
  } sets = {name, nullptr, 0};
  t_pol_graph_visitor visitor = {
      [](void* arg, const t_pol_graph_node* node) {
        auto& found = *static_cast<Sets*>(arg);
        bool policy = node->type == POL_GRAPH_POLICY && node->kind == POL_KIND_ROUTE;
        if (policy && found.name == node->name) found.policy = node->id;
        bool inside = node->type == POL_GRAPH_SEQUENCE && node->parent == found.policy;
        if (found.policy != nullptr && (inside || node->id == found.policy)) {
          found.flags |= node->set_flags;
        }
      },
      nullptr, &sets};
  pol_graph_walk(g_pol_ctx_p, &visitor);
  return sets.flags;
}

void require_policy(const std::string& name, uint32_t kind, const std::string& origin) {
  if (name.size() >= POL_NAME_SIZE) {
    throw InputError(
        fmt::format("polctl: error: the policy name {} is too long (expected at most "
                    "{} bytes)",
                    in_quotes(name), POL_NAME_SIZE - 1));
  }
  if (pol_block_find(g_pol_ctx_p, name.c_str(), kind, nullptr) != nullptr) return;
  const char* word = pol_util_type_str(kind);
  std::string message = fmt::format("{}: error: no {} policy {}", origin, word, in_quotes(name));
  for (uint32_t other : {POL_KIND_ROUTE, POL_KIND_DATA, POL_KIND_MEMBERSHIP}) {
    if (pol_block_find(g_pol_ctx_p, name.c_str(), other, nullptr) != nullptr) {
      message += fmt::format("; there is a {} policy of that name", pol_util_type_str(other));
    }
  }
  std::vector<std::string> names = policy_names(kind);
  std::vector<std::string> near = near_words(name, names);
  if (names.empty()) {
    message += fmt::format(" (expected the name of a {} policy; there are none)", word);
  } else if (near.empty()) {
    message += fmt::format(" (expected one of {})", list_of(names));
  } else {
    message += fmt::format(" (did you mean {}? there are: {})", list_of(near), list_of(names));
  }
  throw InputError(message);
}

}  // namespace polctl
