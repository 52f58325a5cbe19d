// SPDX-License-Identifier: Apache-2.0
//
// polctl serve: a whole device's worth of policy in one process. The agent, the routing daemon and
// the forwarding manager run side by side; what the daemons hold is shown on a local socket.
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>

#include "commands.h"
#include "host/input_error.h"
#include "host/live_server.h"
#include "host/routing_daemon.h"
#include "live_client.h"
#include "live_request.h"
#include "policy/pol_context.h"
#include "policy/pol_fwd_document.h"
#include "terminal.h"
#include "tloc_reader.h"

namespace polctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kSettleTime = std::chrono::seconds(2);
constexpr int kWorkerPollMs = 2;  // the worker has no descriptor to wait for
constexpr int kClientPollMs = 500;

// SIGINT and SIGTERM as a descriptor. To be made before the process has other threads.
class StopSignal {
 public:
  StopSignal() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd_ < 0) throw InputError("polctl: error: no descriptor (expected a free one)");
  }
  ~StopSignal() { close(fd_); }
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// Text as a file that a command can open by its path.
class TextFile {
 public:
  explicit TextFile(const std::string& text) : fd_(memfd_create("routes", MFD_CLOEXEC)) {
    size_t done = 0;
    while (fd_ >= 0 && done < text.size()) {
      ssize_t wrote = write(fd_, text.data() + done, text.size() - done);
      if (wrote <= 0) break;
      done += static_cast<size_t>(wrote);
    }
    if (fd_ < 0 || done < text.size()) throw InputError("polctl: error: the host has no memory");
  }
  ~TextFile() { close(fd_); }
  TextFile(const TextFile&) = delete;
  TextFile& operator=(const TextFile&) = delete;
  std::string path() const { return fmt::format("/proc/self/fd/{}", fd_); }

 private:
  int fd_;
};

class Serving {
 public:
  Serving(const ServeOptions& options, Output* out)
      : options_(options),
        out_(*out),
        source_(options.source),
        manager_(applied_or_only(options.applied, "configuration")),
        server_(options.socket, [this](std::string_view request, const std::string& input,
                                       Output* to) { return answer(request, input, to); }) {}

  void run(int stop_fd) {
    routing_.follow(*source_.configured());
    routing_.take_called();
    out_.print("serving: agent at port {}, socket {}, {} control and membership policies in use\n",
               source_.live()->port, options_.socket, routing_.users());
    begin_fetch();
    std::vector<pollfd> polls;
    for (;;) {
      out_.flush();
      polls = {{stop_fd, POLLIN, 0}, {source_.live()->feed->fd(), POLLIN, 0}};
      server_.wants(&polls);
      int timeout = fetching_ ? kWorkerPollMs : clients_ ? kClientPollMs : -1;
      if (poll(polls.data(), polls.size(), timeout) < 0 && errno != EINTR) {
        throw InputError("polctl: error: cannot wait for work");
      }
      if (polls[0].revents != 0) break;
      if (polls[1].revents != 0 && !take_batch()) {
        throw InputError("agent: error: it has closed (expected it to go on)");
      }
      if (fetching_ && pol_fwd_policy_is_yarrow_updated() != 0) end_fetch();
      clients_ = server_.step();
    }
    out_.write("stopped\n");
    out_.flush();
  }

 private:
  // False when no batch was there.
  bool take_batch() {
    int64_t changes = source_.live()->feed->next(0, source_.live()->walk.get());
    if (changes < 0) return false;
    routing_.follow(*source_.configured());
    manager_.restore(*source_.configured());
    uint64_t calls = manager_.calls();
    out_.print("commit: {} change{}; called back: {}\n", grouped(static_cast<uint64_t>(changes)),
               changes == 1 ? "" : "s", called_back(calls - calls_));
    calls_ = calls;
    begin_fetch();
    return true;
  }

  std::string called_back(uint64_t forwarding_calls) {
    std::vector<std::string> called = routing_.take_called();
    if (forwarding_calls > 0) called.emplace_back("the forwarding manager");
    return called.empty() ? "nobody" : joined(called, ", ");
  }

  void begin_fetch() {
    pol_fwd_queue_xml_config(g_pol_ctx_p);
    if (!fetching_) begun_ = Clock::now();
    fetching_ = true;
  }

  void end_fetch() {
    fetching_ = false;
    std::string document = manager_.document();
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - begun_).count();
    if (document == document_) return;
    document_ = std::move(document);
    out_.print("document: {} bytes, fetched and put together in {:.1f} ms\n",
               grouped(document_.size()), ms);
  }

  void take_batches() {
    while (take_batch()) {
    }
  }

  // Until nothing is under way.
  void settle() {
    Clock::time_point end = Clock::now() + kSettleTime;
    for (;;) {
      take_batches();
      if (fetching_ && pol_fwd_policy_is_yarrow_updated() != 0) {
        end_fetch();
        continue;
      }
      if (!fetching_) return;
      if (Clock::now() > end) {
        throw InputError(
            "polctl: error: the worker still fetches what was committed (a name that is not "
            "configured holds it up for 20 s; \"polctl graph --live\" tells which)");
      }
      usleep(kWorkerPollMs * 500);
    }
  }

  // An answer is about all that was committed before.
  int answer(std::string_view text, const std::string& input, Output* to) {
    LiveRequest request;
    if (!decode_options(text, &request)) {
      throw InputError(
          "polctl: error: the host does not know this request (expected a polctl of its version)");
    }
    take_batches();
    return std::visit([&](const auto& options) { return answer_one(options, input, to); },
                      request.options);
  }

  static int answer_one(EvalOptions options, const std::string& input, Output* to) {
    bool known = (options.kind == POL_KIND_ROUTE || options.kind == POL_KIND_MEMBERSHIP) &&
                 (options.direction == POL_DIR_IN || options.direction == POL_DIR_OUT);
    if (!known) throw InputError("polctl: error: an unknown kind or direction");
    TextFile routes(input);
    options.routes = routes.path();
    options.source.config = {"running configuration"};  // what messages call the source
    return answer_eval(options, to);
  }
  static int answer_one(const DumpOptions& options, const std::string& /*input*/, Output* to) {
    std::vector<std::string> topics = dump_topics();
    if (std::find(topics.begin(), topics.end(), options.topic) == topics.end()) {
      throw InputError("polctl: error: an unknown topic");
    }
    return answer_dump(options, to);
  }
  int answer_one(const GraphOptions& options, const std::string& /*input*/, Output* to) const {
    return answer_graph(options, source_, to);
  }
  int answer_one(const DocumentOptions& options, const std::string& /*input*/, Output* to) {
    settle();
    return answer_document(options, manager_, to);
  }
  int answer_one(const LabelsOptions& options, const std::string& /*input*/, Output* to) {
    settle();
    return answer_labels(options, source_.live()->session.get(), to);
  }

  const ServeOptions& options_;
  Output& out_;
  // Users leave before the context goes: in this order, from the last to the first.
  PolicySource source_;
  RoutingDaemon routing_;
  ForwardingManager manager_;
  LiveServer server_;
  bool clients_ = false;
  bool fetching_ = false;
  Clock::time_point begun_;
  uint64_t calls_ = 0;
  std::string document_;
};

}  // namespace

int run_serve(ServeOptions options, Output* out) {
  StopSignal stop;
  if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
  if (options.socket.empty()) options.socket = default_socket();
  options.source.worker = true;
  Serving(options, out).run(stop.fd());
  return kDone;
}

}  // namespace polctl
