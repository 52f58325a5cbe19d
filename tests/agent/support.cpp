// SPDX-License-Identifier: Apache-2.0
#include "support.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "support/paths.h"

namespace test {

namespace {

// Names of tags, from the schema that this process loaded.
std::string tag_name(uint32_t tag) {
  static std::map<uint32_t, std::string> names;
  if (names.empty()) {
    std::vector<const t_yarrow_cs_node*> todo = {yarrow_cs_node_cd(nullptr, "/")};
    while (!todo.empty()) {
      const t_yarrow_cs_node* node = todo.back();
      todo.pop_back();
      for (; node != nullptr; node = node->next) {
        names[node->tag] = node->name;
        if (node->children != nullptr) todo.push_back(node->children);
      }
    }
  }
  auto found = names.find(tag);
  return found != names.end() ? found->second : "?";
}

std::string text_of(const t_yarrow_value& value) {
  char text[INET6_ADDRSTRLEN] = "";
  switch (value.type) {
    case C_NOEXISTS:
      return "-";
    case C_XMLTAG:
      return "+";
    case C_BUF:
      return reinterpret_cast<const char*>(value.val.buf.ptr);
    case C_UINT16:
      return std::to_string(value.val.u16);
    case C_UINT32:
      return std::to_string(value.val.u32);
    case C_BOOL:
      return value.val.boolean != 0 ? "true" : "false";
    case C_ENUM_VALUE:
      return "#" + std::to_string(value.val.enumvalue);
    case C_IPV4:
      return inet_ntop(AF_INET, &value.val.ip, text, sizeof text);
    case C_IPV6:
      return inet_ntop(AF_INET6, value.val.ip6, text, sizeof text);
    case C_LIST: {
      std::string items;
      for (uint32_t i = 0; i < value.val.list.size; ++i) {
        items += (i > 0 ? "," : "") + text_of(value.val.list.ptr[i]);
      }
      return "{" + items + "}";
    }
    default:
      return "type " + std::to_string(value.type);
  }
}

}  // namespace

TempDirectory::TempDirectory()
    : path_(std::filesystem::temp_directory_path() / "yarrow_test.XXXXXX") {
  if (mkdtemp(path_.data()) == nullptr) abort();
}

TempDirectory::~TempDirectory() { std::filesystem::remove_all(path_); }

std::string file_text(const std::string& name) {
  std::ifstream in(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

namespace {

std::vector<std::string> agent_args(const std::string& directory,
                                    const std::vector<std::string>& options) {
  std::vector<std::string> args = {"--port", "0"};
  if (!directory.empty()) args.insert(args.end(), {"--dir", directory});
  args.insert(args.end(), options.begin(), options.end());
  return args;
}

}  // namespace

AgentProcess::AgentProcess(const std::string& directory, const std::vector<std::string>& options,
                           unsigned descriptors)
    : log_(memfd_create("log", MFD_CLOEXEC)),
      process_(kYarrowdPath, agent_args(directory, options), log_, descriptors) {
  unsigned port = 0;
  sscanf(process_.next_line().c_str(), "yarrowd: port %u", &port);
  port_ = static_cast<uint16_t>(port);
}

AgentProcess::~AgentProcess() {
  EXPECT_TRUE(pid() < 0 || terminate() == 0);
  close(log_);
}

std::string AgentProcess::log() const { return file_text("/proc/self/fd/" + std::to_string(log_)); }

int AgentProcess::end(int signal) {
  if (pid() < 0) return -1;
  const int status = process_.stop(signal);
  if (status != 0 && status != 128 + SIGKILL) fprintf(stderr, "%s", log().c_str());
  return status;
}

Socket::Socket(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  address_.sin_family = AF_INET;
  address_.sin_port = htons(port);
  address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
}

Socket::~Socket() { shut(); }

void Socket::shut() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

Session::Session(uint16_t port) : Socket(port) {
  EXPECT_EQ(why(maapi_connect(fd(), addr(), addr_len())), "ok");
  EXPECT_EQ(why(maapi_start_user_session3(fd(), "system", "test", nullptr, "test")), "ok");
}

int Session::begin(int datastore, int mode) const {
  int trans = maapi_start_trans_flags2(fd(), datastore, mode, 0, 0, nullptr, nullptr);
  EXPECT_GT(trans, 0) << why(trans);
  return trans;
}

int Session::load(const std::string& xml, unsigned flags) const {
  // No expectations here: an agent that is being killed makes any of these fail.
  int trans =
      maapi_start_trans_flags2(fd(), MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr, nullptr);
  if (trans < 0) return trans;
  int status = maapi_load_config_cmds(fd(), trans, flags, xml.c_str(), "%s", "");
  if (status == YARROW_OK) status = maapi_apply_trans(fd(), trans, 0);
  if (status != YARROW_OK) return status;  // the caller reads the error: no call after it
  return maapi_finish_trans(fd(), trans);
}

int Session::commit(const std::string& xml, unsigned flags) const {
  int status = load(xml, flags);
  return status == YARROW_OK ? maapi_candidate_commit(fd()) : status;
}

int Session::commit_edits(std::initializer_list<std::pair<std::string, const char*>> edits) const {
  int trans = begin();
  for (const auto& [path, text] : edits) {
    int status = text != nullptr ? maapi_set_elem_text(fd(), trans, text, "%s", path.c_str())
                                 : maapi_delete(fd(), trans, "%s", path.c_str());
    if (status != YARROW_OK) return status;
  }
  int status = maapi_apply_trans(fd(), trans, 0);
  if (status == YARROW_OK) status = maapi_candidate_commit(fd());
  return status == YARROW_OK ? maapi_finish_trans(fd(), trans) : status;
}

std::string Session::save(const std::string& path, int datastore) const {
  int trans = begin(datastore, MAAPI_READ);
  int id = maapi_save_config(fd(), trans, YARROW_CONFIG_XML, "%s", path.c_str());
  std::string text;
  if (id > 0) {
    Socket stream(ntohs(reinterpret_cast<const sockaddr_in*>(addr())->sin_port));
    EXPECT_EQ(why(yarrow_stream_connect(stream.fd(), addr(), addr_len(), id, 0)), "ok");
    char block[4096];
    for (ssize_t got = 0; (got = recv(stream.fd(), block, sizeof block, MSG_WAITALL)) > 0;) {
      text.append(block, static_cast<size_t>(got));
    }
    EXPECT_EQ(why(maapi_save_config_result(fd(), id)), "ok");
  }
  maapi_finish_trans(fd(), trans);
  return text;
}

Subscriber::Subscriber(uint16_t port, const char* path, unsigned flags) : Socket(port) {
  EXPECT_EQ(why(yarrow_sub_connect(fd(), addr(), addr_len(), path, flags)), "ok");
  EXPECT_EQ(why(yarrow_load_schemas(addr(), addr_len())), "ok");
}

std::string Subscriber::next(int timeout_ms) {
  t_yarrow_batch* batch = nullptr;
  int status = yarrow_sub_read(fd(), timeout_ms, &batch);
  if (status != 1) return status == 0 ? "none" : why(status);
  commit_id_ = yarrow_batch_commit_id(batch);
  std::string text;
  auto visit = [](const t_yarrow_change* change, void* state) {
    *static_cast<std::string*>(state) += describe(*change) + "\n";
    return 0;
  };
  yarrow_batch_iterate(batch, visit, &text);
  yarrow_batch_free(batch);
  return text;
}

std::string describe(const t_yarrow_change& change) {
  std::string text = std::to_string(change.op) + " " + change.path + "@" +
                     std::to_string(unsigned{change.level}) + " [";
  for (uint32_t i = 0; i < change.key_count; ++i) {
    text += (i > 0 ? " " : "") + text_of(change.keys[i]);
  }
  text += "]";
  for (uint32_t i = 0; i < change.value_count; ++i) {
    const t_yarrow_tag_value& value = change.values[i];
    if (value.v.type == C_XMLBEGIN) {
      text += " " + tag_name(value.tag) + "(";
    } else if (value.v.type == C_XMLEND) {
      text += " )";
    } else {
      text += " " + tag_name(value.tag) + "=" + text_of(value.v);
    }
  }
  return text;
}

Environment::Environment(const char* name, const std::string& value) : name_(name) {
  setenv(name, value.c_str(), 1);
}

Environment::~Environment() { unsetenv(name_); }

int listener(int backlog, uint16_t* port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* any = reinterpret_cast<sockaddr*>(&address);
  if (bind(fd, any, size) + listen(fd, backlog) + getsockname(fd, any, &size) != 0) abort();
  *port = ntohs(address.sin_port);
  return fd;
}

FalseAgent::FalseAgent(std::vector<std::string> answers) : listener_(listener(0, &port_)) {
  if (pipe(stop_) != 0) abort();
  thread_ = std::thread([this, answers = std::move(answers)] { serve(answers); });
}

FalseAgent::~FalseAgent() {
  close(stop_[1]);
  thread_.join();
  close(stop_[0]);
  close(listener_);
}

void FalseAgent::serve(const std::vector<std::string>& answers) {
  std::vector<pollfd> watched = {{stop_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
  size_t next = 0;
  while (poll(watched.data(), watched.size(), -1) >= 0 && watched[0].revents == 0) {
    if (watched[1].revents != 0)
      watched.push_back({accept(listener_, nullptr, nullptr), POLLIN, 0});
    char frame[4096];
    for (size_t i = 2; i < watched.size(); ++i) {
      if ((watched[i].revents & POLLIN) == 0) continue;
      if (recv(watched[i].fd, frame, sizeof frame, 0) <= 0) {
        watched[i].events = 0;
      } else if (next < answers.size()) {
        const std::string& answer = answers[next++];
        send(watched[i].fd, answer.data(), answer.size(), MSG_NOSIGNAL);
      }
    }
  }
  for (size_t i = 2; i < watched.size(); ++i) close(watched[i].fd);
}

std::string why(int status) {
  if (status >= 0) return "ok";
  if (status == YARROW_EOF) return "closed";
  std::string reason = yarrow_lasterr();
  return std::string(yarrow_strerror(yarrow_errno)) + (reason.empty() ? "" : ": " + reason);
}

}  // namespace test
