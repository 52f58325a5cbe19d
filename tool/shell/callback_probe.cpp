// SPDX-License-Identifier: Apache-2.0
#include "callback_probe.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <list>

#include "policy/pol_user.h"

namespace polctl {

namespace {

constexpr int kReadyMs = 5'000;
constexpr int kBatchMs = 5'000;
constexpr char kReady = '!';
constexpr char kEnd = '.';

struct Consumer {
  std::string policy;
  bool called = false;
};

void note_call(t_pol_user* /*user*/, uint64_t consumer) noexcept {
  reinterpret_cast<Consumer*>(consumer)->called = true;
}

void tell(int out, const std::string& text) {
  [[maybe_unused]] ssize_t wrote = write(out, text.data(), text.size());
}

// The child: names go out a line each.
void follow(const PolicyOptions& options, int out) {
  PolicySource source(options);
  std::list<Consumer> consumers;
  std::vector<t_pol_user*> users;
  for (uint32_t kind : {POL_KIND_ROUTE, POL_KIND_MEMBERSHIP}) {
    for (const std::string& policy : policy_names(kind)) {
      Consumer& consumer = consumers.emplace_back(Consumer{policy});
      users.push_back(register_user(policy, policy, kind, POL_DIR_IN, note_call, &consumer));
    }
  }
  for (Consumer& consumer : consumers) consumer.called = false;
  tell(out, std::string(1, kReady));
  int64_t changes = source.live()->feed->next(2 * kBatchMs, source.live()->walk.get());
  std::string text;
  for (const Consumer& consumer : consumers) {
    if (consumer.called) text += consumer.policy + "\n";
  }
  if (changes >= 0) tell(out, text + kEnd);
  for (t_pol_user*& user : users) pol_unregister(&user);
}

}  // namespace

CallbackProbe::CallbackProbe(const PolicyOptions& source) {
  int ends[2];
  if (pipe(ends) != 0) return;
  child_ = fork();
  if (child_ == 0) {
    close(ends[0]);
    // What goes wrong here is no fault of the commit: it is only not known.
    try {
      follow(source, ends[1]);
    } catch (const std::exception&) {
    }
    _exit(0);
  }
  close(ends[1]);
  pipe_ = ends[0];
  std::string text;
  ready_ = child_ > 0 && wait_for(&text, kReady);
}

CallbackProbe::~CallbackProbe() {
  if (pipe_ >= 0) close(pipe_);
  if (child_ <= 0) return;
  kill(child_, SIGKILL);
  waitpid(child_, nullptr, 0);
}

// Reads up to and without `end`; false when it does not come in time.
bool CallbackProbe::wait_for(std::string* text, char end) const {
  pollfd watched = {pipe_, POLLIN, 0};
  while (true) {
    int status = poll(&watched, 1, end == kReady ? kReadyMs : kBatchMs);
    char byte = 0;
    if (status < 0 && errno == EINTR) continue;
    if (status <= 0 || read(pipe_, &byte, 1) != 1) return false;
    if (byte == end && (text->empty() || text->back() == '\n')) return true;
    *text += byte;
  }
}

std::optional<std::vector<std::string>> CallbackProbe::called() {
  std::string text;
  if (!ready_ || !wait_for(&text, kEnd)) return {};
  std::vector<std::string> names;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    names.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  return names;
}

}  // namespace polctl
