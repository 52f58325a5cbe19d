// SPDX-License-Identifier: Apache-2.0
//
// polctl serve: a whole device's worth of policy in one process. The agent, the routing daemon and
// the forwarding manager run side by side; what the daemons hold is shown on a local socket.
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <optional>
#include <thread>

#include "commands.h"
#include "deciding/route_table.h"
#include "expect/announcer.h"
#include "host/address_text.h"
#include "host/event_log.h"
#include "host/graph_model.h"
#include "host/input_error.h"
#include "host/live_server.h"
#include "host/routing_daemon.h"
#include "host/source_file.h"
#include "live_client.h"
#include "live_request.h"
#include "platform/service/log.h"
#include "platform/service/notify.h"
#include "policy/pol_context.h"
#include "policy/pol_fwd_document.h"
#include "terminal.h"
#include "tloc_reader.h"
#include "watching/host_watch.h"
#include "watching/web_site.h"

namespace polctl {

namespace {

using Clock = std::chrono::steady_clock;
using service::LogLevel;

constexpr auto kSettleTime = std::chrono::seconds(2);
constexpr int kWorkerPollMs = 2;  // the worker has no descriptor to wait for
constexpr int kClientPollMs = 500;

// SIGINT, SIGTERM and SIGHUP as a descriptor. To be made before the process has other threads. An end
// that was asked for comes: where the host is held up for longer than kEndTime, by an agent that does
// not answer, the process ends as it stands; so it does at the second signal.
class Signals {
 public:
  static constexpr unsigned kEndTime = 5;  // seconds

  Signals() {
    sigemptyset(&set_);
    for (int each : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set_, each);
    sigemptyset(&end_);
    for (int each : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&end_, each);
    sigaddset(&set_, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd_ < 0) throw InputError("polctl: error: no descriptor (expected a free one)");
    waiter_ = std::thread([this] { wait(); });
  }
  ~Signals() {
    over_ = true;
    pthread_kill(waiter_.native_handle(), SIGUSR1);
    waiter_.join();
    close(fd_);
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  int fd() const { return fd_; }
  bool ends() const { return ends_; }
  /* Whether TLOCs are to be read again; once a signal. */
  bool take_hangup() {
    uint64_t count = 0;
    [[maybe_unused]] ssize_t got = read(fd_, &count, sizeof count);
    return hangup_.exchange(false);
  }

 private:
  void wait() {
    while (!over_) {
      int signal = 0;
      if (sigwait(&set_, &signal) != 0 || over_) continue;
      (signal == SIGHUP ? hangup_ : ends_) = true;
      uint64_t one = 1;
      [[maybe_unused]] ssize_t wrote = write(fd_, &one, sizeof one);
      if (ends_) break;
    }
    timespec patience = {kEndTime, 0};
    while (!over_) {
      if (sigtimedwait(&end_, nullptr, &patience) < 0 && errno == EINTR) continue;
      if (!over_) _exit(128 + SIGTERM);
    }
  }

  sigset_t set_;
  sigset_t end_;
  int fd_ = -1;
  std::atomic<bool> over_ = false;
  std::atomic<bool> ends_ = false;
  std::atomic<bool> hangup_ = false;
  std::thread waiter_;
};

class Serving {
 public:
  explicit Serving(const ServeOptions& options)
      : options_(options),
        source_(options.source),
        routing_(options.directions),
        routes_(options.routes, options.routes_format, options.directions),
        manager_(checked(options.applied), *source_.configured()),
        watch_(source_, &routing_, &manager_),
        site_(&watch_),
        server_(options.socket, [this](std::string_view request, const std::string& input,
                                       Output* to) { return answer(request, input, to); }) {
    if (options.http.empty()) return;
    web_.emplace(HttpOptions{options.http, options.http_hosts, page_policy()},
                 [this](const HttpRequest& request) {
                   take_batches();
                   return site_.answer(request);
                 });
  }

  void run(Signals* signals) {
    if (options_.announce) announcer_.emplace(options_.directions);
    routing_.follow(*source_.configured());
    routing_.take_called();
    uint16_t port = source_.live()->port;
    tell(LogLevel::kNotice, "the host serves",
         {{"port", port}, {"path", options_.socket}, {"users", routing_.users()}},
         fmt::format(
             "serving: agent at port {}, socket {}, {} control and membership policies in use",
             port, options_.socket, routing_.users()));
    if (web_) {
      tell(LogLevel::kNotice, "the page is served", {{"address", web_->address()}},
           "page: " + web_->address());
    }
    for (const auto& [policy, direction] : options_.directions) {
      if (routing_.uses(policy)) continue;
      tell(LogLevel::kWarning, "a policy to be used is not configured yet", {{"policy", policy}},
           fmt::format("policy {} is not configured yet", in_quotes(policy)));
    }
    tell_names();
    decide_routes({});
    begin_fetch();
    service::notify_ready(fmt::format("follows the agent at port {}", port));
    std::vector<pollfd> polls;
    while (!signals->ends()) {
      log_.flush();
      polls = {{signals->fd(), POLLIN, 0}, {source_.live()->feed->fd(), POLLIN, 0}};
      server_.wants(&polls);
      if (web_) web_->wants(&polls);
      log_.wants(&polls);
      int timeout = watch_.told.fetching ? kWorkerPollMs : clients_ ? kClientPollMs : -1;
      if (poll(polls.data(), polls.size(), timeout) < 0 && errno != EINTR) {
        throw InputError("polctl: error: cannot wait for work");
      }
      if (polls[0].revents != 0 && signals->take_hangup()) read_again();
      if (signals->ends()) break;
      if (polls[1].revents != 0 && !take_batch()) {
        throw InputError("agent: error: it has closed (expected it to go on)");
      }
      if (watch_.told.fetching && pol_fwd_policy_is_yarrow_updated() != 0) end_fetch();
      clients_ = server_.step();
      if (web_ && web_->step()) clients_ = true;
    }
    service::notify_stopping();
    tell(LogLevel::kNotice, "the host ends", {}, "stopped");
  }

 private:
  // An event: in the log, where one was asked for, in fixed words with its facts; else as a line.
  void tell(LogLevel level, std::string_view what, std::initializer_list<service::LogField> facts,
            std::string_view line) {
    options_.log.empty() ? log_.line(line) : service::log_line(level, what, facts);
  }

  // Where none is named the only one of each kind is applied; several cannot be.
  static const AppliedPolicies& checked(const AppliedPolicies& applied) {
    if (!applied.any()) applied_or_only(applied, "configuration");
    return applied;
  }

  // False when no batch was there.
  bool take_batch() {
    ConfigFeed::Batch batch = source_.live()->feed->read(0);
    if (!batch) return false;
    announce(batch.get());
    source_.live()->walk->take(batch.get());
    routing_.follow(*source_.configured());
    manager_.follow(*source_.configured());
    const CommitNote& commit = watch_.note(batch.get());
    std::string called = commit.called.empty() ? "nobody" : joined(commit.called, ", ");
    tell(LogLevel::kInfo, "a commit is walked",
         {{"changes", commit.changes}, {"called_back", called}},
         fmt::format("commit: {} change{}; called back: {}", grouped(commit.changes),
                     commit.changes == 1 ? "" : "s", called));
    decide_routes(commit.called);
    tell_names();
    begin_fetch();
    return true;
  }

  void decide_routes(const std::vector<std::string>& called) {
    watch_.told.routes = routes_.routes();
    for (const RouteTable::Round& round :
         routes_.decide(*source_.configured(), called, &watch_.counters)) {
      HostCounts& counts = watch_.counters.host;
      counts.rounds.add(round.ms);
      counts.answers_changed += round.changed;
      tell(LogLevel::kInfo, "a policy has decided the routes",
           {{"policy", round.policy},
            {"routes", routes_.routes()},
            {"accepted", round.accepted},
            {"changed", round.changed}},
           fmt::format("routes: {} of {} accepted by {}{}", grouped(round.accepted),
                       grouped(routes_.routes()), printable(round.policy),
                       round.first ? ""
                                   : fmt::format(", {} answer{} changed", grouped(round.changed),
                                                 round.changed == 1 ? "" : "s")));
    }
  }

  // Before the library takes it.
  void announce(const t_yarrow_batch* batch) {
    if (!announcer_) return;
    auto take = [&] { source_.live()->walk->take(batch); };
    for (const std::string& line : announcer_->changes(take)) {
      tell(LogLevel::kInfo, "a commit changes answers", {{"change", line}}, "  " + line);
    }
  }

  // What is named and not configured, when that has changed.
  void tell_names() {
    std::vector<std::string> absent = absent_objects(source_.configured());
    if (absent != watch_.told.absent && !absent.empty()) {
      std::string names = joined(absent, ", ");
      tell(LogLevel::kWarning, "named, but not configured", {{"names", names}},
           "named, but not configured: " + names + "; the worker asks for each for 20 s");
    }
    watch_.told.absent = std::move(absent);
    std::vector<std::string> awaited = manager_.awaited();
    if (awaited != watch_.told.awaited && !awaited.empty()) {
      std::string names = joined(awaited, ", ");
      tell(LogLevel::kWarning, "to be applied, but not configured", {{"names", names}},
           "to be applied, but not configured: " + names);
    }
    watch_.told.awaited = std::move(awaited);
  }

  void read_again() {
    if (options_.tlocs.empty() && !routes_.any()) {
      tell(LogLevel::kNotice, "SIGHUP: there is nothing to read again", {},
           "hangup: there is nothing to read again (no --tlocs, no --routes)");
      return;
    }
    if (!options_.tlocs.empty()) read_tlocs_again();
    if (routes_.any()) read_routes_again();
    decide_routes({});
  }

  void read_routes_again() {
    routes_.forget();
    try {
      routes_.read_again();
      tell(LogLevel::kNotice, "SIGHUP: routes are read again",
           {{"routes", routes_.routes()}, {"file", options_.routes}},
           fmt::format("hangup: {} routes read from {}", grouped(routes_.routes()),
                       options_.routes));
    } catch (const InputError& error) {
      tell(LogLevel::kError, "SIGHUP: the routes stay as they were", {{"reason", error.what()}},
           fmt::format("hangup: the routes stay as they were: {}", error.what()));
    }
  }

  void read_tlocs_again() {
    try {
      size_t count = load_resolvable_tlocs(options_.tlocs);
      source_.live()->walk->resolve_again();
      tell(LogLevel::kNotice, "SIGHUP: TLOCs are read again",
           {{"tlocs", count}, {"file", options_.tlocs}},
           fmt::format("hangup: {} TLOCs read from {}", count, options_.tlocs));
      begin_fetch();
    } catch (const InputError& error) {
      tell(LogLevel::kError, "SIGHUP: the TLOCs stay as they were", {{"reason", error.what()}},
           fmt::format("hangup: the TLOCs stay as they were: {}", error.what()));
    }
  }

  void begin_fetch() {
    pol_fwd_queue_xml_config(g_pol_ctx_p);
    if (!watch_.told.fetching) begun_ = Clock::now();
    watch_.told.fetching = true;
  }

  void end_fetch() {
    watch_.told.fetching = false;
    std::string document = manager_.document();
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - begun_).count();
    watch_.counters.host.documents.add(ms);
    if (document == document_) return;
    document_ = std::move(document);
    watch_.told.document_bytes = document_.size();
    std::string took = fmt::format("{:.1f}", ms);
    tell(LogLevel::kInfo, "the document is put together",
         {{"bytes", document_.size()}, {"milliseconds", took}},
         fmt::format("document: {} bytes, fetched and put together in {} ms",
                     grouped(document_.size()), took));
  }

  void take_batches() {
    while (take_batch()) {
    }
  }

  // Until nothing is under way, or for as long as is bearable. Whether all is done.
  bool settle() {
    Clock::time_point end = Clock::now() + kSettleTime;
    for (;;) {
      take_batches();
      if (watch_.told.fetching && pol_fwd_policy_is_yarrow_updated() != 0) {
        end_fetch();
        continue;
      }
      if (!watch_.told.fetching) return true;
      if (Clock::now() > end || !watch_.told.absent.empty()) return false;
      usleep(kWorkerPollMs * 500);
    }
  }

  // An answer is about all that was committed before.
  int answer(std::string_view text, const std::string& input, Output* to) {
    ++watch_.counters.host.requests;
    try {
      return answer_known(text, input, to);
    } catch (const InputError&) {
      ++watch_.counters.host.refused;
      throw;
    }
  }

  int answer_known(std::string_view text, const std::string& input, Output* to) {
    LiveRequest request;
    if (!decode_options(text, &request)) {
      throw InputError(
          "polctl: error: the host does not know this request (expected a polctl of its version)");
    }
    take_batches();
    return std::visit([&](const auto& options) { return answer_one(options, input, to); },
                      request.options);
  }

  int answer_one(EvalOptions options, const std::string& input, Output* to) {
    bool known = (options.kind == POL_KIND_ROUTE || options.kind == POL_KIND_MEMBERSHIP) &&
                 options.direction <= POL_DIR_OUT;
    if (!known) throw InputError("polctl: error: an unknown kind or direction");
    MemoryFile routes(input);
    options.routes = routes.path();
    options.source.config = {"running configuration"};  // what messages call the source
    Decisions decisions;
    try {
      int status = answer_eval(options, to, &decisions);
      watch_.counters.add({options.kind, options.policy}, decisions);
      return status;
    } catch (const InputError&) {
      watch_.counters.add({options.kind, options.policy}, decisions);
      throw;
    }
  }
  static int answer_one(const TestOptions& options, const std::string& input, Output* to) {
    if (options.direction > POL_DIR_OUT) throw InputError("polctl: error: an unknown direction");
    try {
      return answer_test(options, input, to);
    } catch (const InternalError& error) {
      to->print("{}\n", error.what());
      return kInternal;
    }
  }
  static int answer_one(const DumpOptions& options, const std::string& /*input*/, Output* to) {
    std::vector<std::string> topics = dump_topics();
    if (std::find(topics.begin(), topics.end(), options.topic) == topics.end()) {
      throw InputError("polctl: error: an unknown topic");
    }
    return answer_dump(options, to);
  }
  static int answer_one(SearchOptions options, const std::string& /*input*/, Output* to) {
    bool known = (options.kind == POL_KIND_ROUTE || options.kind == POL_KIND_MEMBERSHIP) &&
                 options.direction <= POL_DIR_OUT && options.action <= POL_REJECT;
    if (!known) throw InputError("polctl: error: an unknown kind, direction or action");
    options.source.config = {"running configuration"};
    // The host stands still meanwhile.
    options.limits.insert(options.limits.begin(), "5s");
    try {
      return answer_search(options, to);
    } catch (const InternalError& error) {
      to->print("{}\n", error.what());
      return kInternal;
    }
  }
  int answer_one(const GraphOptions& options, const std::string& /*input*/, Output* to) const {
    return answer_graph(options, source_, to);
  }
  int answer_one(const DocumentOptions& options, const std::string& /*input*/, Output* to) {
    if (!settle()) {
      if (!watch_.told.absent.empty()) throw_absent(watch_.told.absent);
      throw InputError(
          "polctl: error: the worker still fetches what was committed (expected it to be done in "
          "2 s; ask again)");
    }
    return answer_document(options, manager_, to);
  }
  int answer_one(const LabelsOptions& options, const std::string& /*input*/, Output* to) {
    settle();  // labels are written first; what is fetched after them does not matter
    return answer_labels(options, source_.live()->session.get(), to);
  }

  int answer_one(const ShowOptions& options, const std::string& /*input*/, Output* to) {
    watch_.show(options, to);
    return kDone;
  }
  int answer_one(const ClearOptions& options, const std::string& /*input*/, Output* to) {
    if (options.what != "counters") throw InputError("polctl: error: nothing of that name is kept");
    watch_.counters.clear();
    to->write("cleared\n");
    return kDone;
  }

  const ServeOptions& options_;
  EventLog log_;
  // Users leave before the context goes: in this order, from the last to the first.
  PolicySource source_;
  RoutingDaemon routing_;
  RouteTable routes_;
  ForwardingManager manager_;
  HostWatch watch_;
  WebSite site_;
  std::optional<HttpServer> web_;
  LiveServer server_;
  std::optional<Announcer> announcer_;
  bool clients_ = false;
  Clock::time_point begun_;
  std::string document_;
};

}  // namespace

int run_serve(ServeOptions options, Output* /*out*/) {
  Signals signals;
  service::LogTarget target = service::LogTarget::kOff;
  // Without it the lines of an agent in here go to the system log.
  if (service::log_target_of(options.log, &target)) service::log_to(target, "polctl");
  try {
    if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
    if (options.socket.empty()) options.socket = default_socket();
    options.source.worker = true;
    Serving(options).run(&signals);
  } catch (const InputError& error) {
    if (options.log.empty()) throw;
    service::log_line(LogLevel::kError, "the host cannot go on", {{"reason", error.what()}});
    // Who started it by hand sees no system log.
    if (target == service::LogTarget::kSyslog) throw;
    return kBadInput;
  }
  return kDone;
}

}  // namespace polctl
