// SPDX-License-Identifier: Apache-2.0
#include "agent_link.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <string_view>

#include "address_text.h"
#include "agent/yarrow_agent.h"
#include "input_error.h"
#include "near_word.h"
#include "setlines/set_document.h"
#include "xml_places.h"
#include "yarrow/yarrow_maapi.h"

namespace polctl {

namespace {

[[noreturn]] void fail(const char* what, const std::string& problem = agent_problem()) {
  throw InputError(
      fmt::format("polctl: error: {}: {} (expected an agent that answers)", what, problem));
}

// Calls take(line) for each line of what the agent said.
template <typename Take>
void each_reason(std::string_view text, Take take) {
  while (!text.empty()) {
    size_t end = text.find('\n');
    take(text.substr(0, end));
    if (end == std::string_view::npos) return;
    text.remove_prefix(end + 1);
  }
}

// Where a path ends in "PATH: REASON"; names in it may hold colons and blanks, in braces.
size_t path_end(std::string_view text) {
  bool in_keys = false;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (quoted && c == '\\') {
      ++i;
    } else if (in_keys && c == '"') {
      quoted = !quoted;
    } else if (!quoted && (c == '{' || c == '}')) {
      in_keys = c == '{';
    } else if (!in_keys && c == ':') {
      return i;
    }
  }
  return std::string_view::npos;
}

// What was meant by a word that is not among those expected: the value in quotes, or the path's last
// name. A name's siblings are many, and are left out where it is clear which was meant.
void add_hint(ConfigFault* fault) {
  constexpr std::string_view kOneOf = "one of: ";
  if (!fault->expected.starts_with(kOneOf)) return;
  bool is_name = fault->what.find('"') == std::string::npos;
  std::string word = fault->path.substr(fault->path.rfind('/') + 1);
  if (!is_name) {
    size_t begin = fault->what.find('"') + 1;
    word = fault->what.substr(begin, fault->what.rfind('"') - begin);
  }
  std::vector<std::string> known;
  for (size_t at = kOneOf.size(); at < fault->expected.size();) {
    size_t end = std::min(fault->expected.find(", ", at), fault->expected.size());
    known.push_back(fault->expected.substr(at, end - at));
    at = end + 2;
  }
  std::vector<std::string> near = near_words(word, known);
  if (near.empty()) return;
  fault->what += ", did you mean " + near.front() + "?";
  if (is_name) fault->expected.clear();
}

// How many "and 7 more" says; 0 for any other words.
uint64_t more_of(std::string_view text) {
  constexpr std::string_view kAnd = "and ";
  uint64_t more = 0;
  if (!text.starts_with(kAnd)) return 0;
  const auto [end, error] =
      std::from_chars(text.data() + kAnd.size(), text.data() + text.size(), more);
  const bool whole =
      error == std::errc() && text.substr(static_cast<size_t>(end - text.data())) == " more";
  return whole ? more : 0;
}

// "line 5:7: /policy/...: reason", "/policy/...: reason" or a reason alone.
ConfigFault fault_of(std::string_view text) {
  ConfigFault fault;
  constexpr std::string_view kLine = "line ";
  if (text.starts_with(kLine)) {
    const char* begin = text.data() + kLine.size();
    const char* last = text.data() + text.size();
    auto [end, error] = std::from_chars(begin, last, fault.line);
    if (error == std::errc() && end + 1 < last && *end == ':' && end[1] != ' ') {
      auto [after, bad] = std::from_chars(end + 1, last, fault.column);
      if (bad == std::errc()) end = after;
    }
    if (error == std::errc() && last - end >= 2 && std::string_view(end, 2) == ": ") {
      text.remove_prefix(static_cast<size_t>(end + 2 - text.data()));
    }
  }
  size_t colon = text.starts_with('/') ? path_end(text) : std::string_view::npos;
  if (colon != std::string_view::npos && colon + 2 <= text.size()) {
    fault.path = text.substr(0, colon);
    text.remove_prefix(colon + 2);
  }
  constexpr std::string_view kExpected = " (expected ";
  size_t expected = text.ends_with(')') ? text.rfind(kExpected) : std::string_view::npos;
  if (expected != std::string_view::npos) {
    fault.expected = text.substr(expected + kExpected.size());
    fault.expected.pop_back();
    text = text.substr(0, expected);
  }
  fault.what = text;
  add_hint(&fault);
  fault.more = more_of(fault.what);
  return fault;
}

// What the agent says of a line of the XML that set-lines were made into.
void settle_place(const SetDocument& lines, ConfigFault* fault) {
  SetPlace place = lines.place_of(fault->line);
  fault->line = place.line;
  fault->column = place.column;
}

}  // namespace

int agent_socket() {
  int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock < 0) throw InputError("polctl: error: no socket (expected a free file descriptor)");
  return sock;
}

sockaddr_in agent_address(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

std::string agent_problem() {
  std::string reason = yarrow_lasterr();
  return reason.empty() ? yarrow_strerror(yarrow_errno) : reason;
}

EmbeddedAgent::EmbeddedAgent(uint16_t port, const std::string& directory) {
  std::string problem;
  agent::Options options;
  options.port = port;
  if (!directory.empty()) options.directory = directory;
  handle_ = agent::start(options, &problem);
  if (!handle_) {
    std::string which = port == 0 ? "a free port" : fmt::format("port {} free", port);
    if (!directory.empty()) which += fmt::format(", and {} its own", in_quotes(directory));
    throw InputError(
        fmt::format("polctl: error: the agent does not start: {} (expected {})", problem, which));
  }
  agent::run_in_thread(*handle_);
  set_worker_port(agent::port(*handle_));
}

EmbeddedAgent::~EmbeddedAgent() { agent::stop(*handle_); }

uint16_t EmbeddedAgent::port() const { return agent::port(*handle_); }

uint16_t port_of(const std::string& text, const std::string& what, uint16_t lowest) {
  uint16_t port = 0;
  const char* last = text.data() + text.size();
  auto [end, error] = std::from_chars(text.data(), last, port);
  if (error != std::errc() || end != last || port < lowest) {
    throw InputError(fmt::format("polctl: error: {}: {} is no port (expected {} to 65535)", what,
                                 in_quotes(text), lowest));
  }
  return port;
}

uint16_t running_agent_port(const std::string& given) {
  const char* variable = getenv(YARROW_PORT_VARIABLE);
  const char* path = getenv(YARROW_PATH_VARIABLE);
  std::string text = !given.empty() ? given : variable != nullptr ? variable : "";
  if (given.empty() && path != nullptr && *path != '\0') text.clear();
  // A port that was given wins over the environment, which every connect call would look at.
  unsetenv(YARROW_PORT_VARIABLE);
  if (!given.empty()) unsetenv(YARROW_PATH_VARIABLE);
  if (text.empty()) return YARROW_PORT;
  return port_of(text, given.empty() ? YARROW_PORT_VARIABLE : "--agent", 1);
}

UnreachablePort::UnreachablePort() : sock_(agent_socket()) {
  // Bound, so that nobody else is, and not listening.
  sockaddr_in address = agent_address(0);
  socklen_t length = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  if (bind(sock_, any, length) != 0 || getsockname(sock_, any, &length) != 0) {
    close(sock_);
    throw InputError("polctl: error: no port (expected a free one on the loopback address)");
  }
  port_ = ntohs(address.sin_port);
}

UnreachablePort::~UnreachablePort() { close(sock_); }

void set_worker_port(uint16_t port) {
  unsetenv(YARROW_PATH_VARIABLE);
  setenv(YARROW_PORT_VARIABLE, std::to_string(port).c_str(), 1);
}

std::vector<ConfigFault> agent_faults() {
  std::vector<ConfigFault> faults;
  each_reason(agent_problem(),
              [&](std::string_view reason) { faults.push_back(fault_of(reason)); });
  return faults;
}

std::string fault_line(const ConfigFault& fault, const char* severity) {
  std::string text = fault.file.empty() ? "polctl" : printable(fault.file);
  if (fault.line > 0) text += fmt::format(":{}", fault.line);
  if (fault.column > 0) text += fmt::format(":{}", fault.column);
  text += fmt::format(": {}: ", severity);
  if (!fault.path.empty()) text += printable(fault.path) + ": ";
  text += printable(fault.what);
  if (!fault.expected.empty()) text += fmt::format(" (expected {})", printable(fault.expected));
  return text;
}

ConfigSession::ConfigSession(uint16_t port)
    : sock_(agent_socket()), port_(port), datastore_(MAAPI_RUNNING) {
  sockaddr_in address = agent_address(port);
  if (maapi_connect(sock_, reinterpret_cast<const sockaddr*>(&address), sizeof address) !=
          YARROW_OK ||
      maapi_start_user_session3(sock_, "polctl", "cli", nullptr, "polctl") != YARROW_OK) {
    std::string problem = agent_problem();
    close(sock_);
    throw InputError(
        fmt::format("agent at port {}: error: {} (expected a running yarrowd)", port, problem));
  }
}

ConfigSession::~ConfigSession() { maapi_close(sock_); }

void ConfigSession::load(const SourceFiles& files, std::vector<ConfigFault>* faults) {
  int trans =
      maapi_start_trans_flags2(sock_, MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr, nullptr);
  if (trans < 0) fail("no transaction");
  for (const SourceFile& file : files) {
    const SetDocument* lines = file.set_lines();
    if (lines != nullptr && !lines->faults.empty()) {
      for (const SetFault& each : lines->faults) {
        faults->push_back(
            {file.name(), each.place.line, each.place.column, "", each.what, each.expected});
      }
      continue;
    }
    if (maapi_load_config(sock_, trans, YARROW_CONFIG_XML | YARROW_CONFIG_MERGE,
                          file.xml_path().c_str()) == YARROW_OK) {
      continue;
    }
    each_reason(agent_problem(), [&](std::string_view reason) {
      faults->push_back(fault_of(reason));
      faults->back().file = file.name();
      if (lines != nullptr) settle_place(*lines, &faults->back());
    });
  }
  if (faults->empty() && maapi_apply_trans(sock_, trans, 0) != YARROW_OK) fail("not applied");
  maapi_finish_trans(sock_, trans);
}

bool ConfigSession::commit(const SourceFiles& files, std::vector<ConfigFault>* faults) {
  int64_t before = maapi_commit_id(sock_);
  if (maapi_candidate_commit(sock_) == YARROW_OK) return maapi_commit_id(sock_) != before;
  std::string problem = agent_problem();
  if (yarrow_errno != YARROW_ERR_INVALID) fail("not committed");
  XmlPlaces places(files);
  each_reason(problem, [&](std::string_view reason) {
    ConfigFault fault = fault_of(reason);
    places.find(fault.path, &fault);
    faults->push_back(std::move(fault));
  });
  return false;
}

int64_t ConfigSession::commit_id() {
  int64_t number = maapi_commit_id(sock_);
  if (number < 0) fail("no commit number");
  return number;
}

CommitMaker ConfigSession::maker_of(int64_t number) {
  struct Search {
    int64_t number;
    CommitMaker found;
  } search = {number, {}};
  auto visit = [](const t_maapi_commit* commit, void* state) {
    auto* sought = static_cast<Search*>(state);
    if (commit->number != sought->number) return 0;
    sought->found = {commit->user, commit->client_id, commit->comment};
    return 1;
  };
  if (maapi_commits(sock_, visit, &search, nullptr, nullptr) != YARROW_OK) fail("no commits");
  return search.found;
}

int64_t ConfigSession::other_sessions() {
  int64_t others = 0;
  auto visit = [](const t_maapi_session* session, void* state) {
    if ((session->flags & MAAPI_SESSION_OWN) == 0) ++*static_cast<int64_t*>(state);
    return 0;
  };
  if (maapi_sessions(sock_, visit, &others) != YARROW_OK) fail("no sessions");
  return others;
}

bool ConfigSession::look_back(int64_t back) {
  if (maapi_candidate_reset(sock_) != YARROW_OK) fail("no candidate");
  datastore_ = MAAPI_CANDIDATE;
  return back == 0 || maapi_load_rollback(sock_, static_cast<unsigned>(back)) == YARROW_OK;
}

std::string ConfigSession::save(const std::string& path) {
  std::string problem;
  std::string text = saved_xml(sock_, port_, datastore_, path, &problem);
  if (!problem.empty()) fail("no configuration", problem);
  return text;
}

namespace {

bool read_stream(int sock, uint16_t port, int id, std::string* text) {
  int stream = agent_socket();
  sockaddr_in address = agent_address(port);
  char block[65536];
  ssize_t got = yarrow_stream_connect(stream, reinterpret_cast<const sockaddr*>(&address),
                                      sizeof address, id, 0) == YARROW_OK
                    ? 1
                    : -1;
  while (got > 0) {
    got = recv(stream, block, sizeof block, 0);
    if (got < 0 && errno == EINTR)
      got = 1;
    else if (got > 0)
      text->append(block, static_cast<size_t>(got));
  }
  close(stream);
  return got == 0 && maapi_save_config_result(sock, id) == YARROW_OK;
}

}  // namespace

std::string saved_xml(int sock, uint16_t port, int datastore, const std::string& path,
                      std::string* problem) {
  std::string text;
  int trans = maapi_start_trans_flags2(sock, datastore, MAAPI_READ, 0, 0, nullptr, nullptr);
  int id =
      trans < 0 ? trans : maapi_save_config(sock, trans, YARROW_CONFIG_XML, "%s", path.c_str());
  const bool nothing = trans >= 0 && id < 0 && yarrow_errno == YARROW_ERR_NOEXISTS;
  if (!nothing && (id < 0 || !read_stream(sock, port, id, &text))) *problem = agent_problem();
  if (trans >= 0) maapi_finish_trans(sock, trans);
  return text;
}

void throw_faults(const std::vector<ConfigFault>& faults) {
  std::string text;
  for (const ConfigFault& fault : faults) {
    if (!text.empty()) text += '\n';
    text += fault_line(fault, "error");
  }
  throw InputError(text);
}

}  // namespace polctl
