// SPDX-License-Identifier: Apache-2.0
//
// What commits cost, and how that grows with the configuration: an agent in a thread of this
// process, its running configuration on disk, its clients over real sockets. Prints one row a size.
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/yarrow_agent.h"
#include "yarrow/yarrow_changes.h"
#include "yarrow/yarrow_maapi.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCommits = 1000;
constexpr int kProbes = 101;

[[noreturn]] void die(const char* what) {
  fprintf(stderr, "%s: %s: %s\n", what, yarrow_strerror(yarrow_errno), yarrow_lasterr());
  exit(1);
}

void check(int status, const char* what) {
  if (status < 0) die(what);
}

double ms_since(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

struct Link {
  int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};

  explicit Link(uint16_t port) {
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  ~Link() { close(sock); }
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  const sockaddr* addr() const { return reinterpret_cast<const sockaddr*>(&address); }
};

std::string prefix_list(int entries) {
  std::string text = "<policy xmlns=\"urn:zenodra:policy\"><lists><prefix-list><name>big</name>";
  for (int i = 0; i < entries; ++i) {
    text += "<prefix><prefix>" + std::to_string(10 + (i >> 16)) + "." +
            std::to_string(i >> 8 & 255) + "." + std::to_string(i & 255) +
            ".0/24</prefix><le>32</le></prefix>";
  }
  return text + "</prefix-list></lists></policy>";
}

// Edits one entry through a transaction of its own and applies it to the candidate.
void edit_one(int sock, int number, int le) {
  int trans =
      maapi_start_trans_flags2(sock, MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr, nullptr);
  check(trans, "transaction");
  std::string text = std::to_string(le);
  check(maapi_set_elem_text(sock, trans, text.c_str(),
                            "/policy/lists/prefix-list{big}/prefix{%d.%d.%d.0/24}/le",
                            10 + (number >> 16), number >> 8 & 255, number & 255),
        "edit");
  check(maapi_apply_trans(sock, trans, 0), "apply");
  check(maapi_finish_trans(sock, trans), "finish");
}

void measure(int entries) {
  std::string directory = std::filesystem::temp_directory_path() / "agent_bench.XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) die("directory");
  agent::Options options;
  options.directory = directory;
  std::string error;
  std::shared_ptr<agent::Handle> handle = agent::start(options, &error);
  if (!handle) {
    fprintf(stderr, "%s\n", error.c_str());
    exit(1);
  }
  agent::run_in_thread(*handle);
  {
    Link link(agent::port(*handle));
    Link listener(agent::port(*handle));
    check(maapi_connect(link.sock, link.addr(), sizeof link.address), "connect");
    check(maapi_start_user_session3(link.sock, "bench", "bench", nullptr, nullptr), "session");
    check(yarrow_sub_connect(listener.sock, listener.addr(), sizeof listener.address, "/policy", 0),
          "subscribe");

    std::string text = prefix_list(entries);
    Clock::time_point begin = Clock::now();
    int trans = maapi_start_trans_flags2(link.sock, MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0,
                                         nullptr, nullptr);
    check(maapi_load_config_cmds(link.sock, trans, YARROW_CONFIG_XML | YARROW_CONFIG_MERGE,
                                 text.c_str(), "%s", ""),
          "load");
    check(maapi_apply_trans(link.sock, trans, 0), "apply");
    check(maapi_finish_trans(link.sock, trans), "finish");
    double load = ms_since(begin);
    begin = Clock::now();
    check(maapi_candidate_commit(link.sock), "commit");
    double commit = ms_since(begin);
    t_yarrow_batch* batch = nullptr;
    check(yarrow_sub_read(listener.sock, 60'000, &batch), "batch");
    double told = ms_since(begin);
    uint32_t changes = yarrow_batch_count(batch);
    yarrow_batch_free(batch);

    std::vector<double> probes;
    for (int i = 0; i < kProbes; ++i) {
      edit_one(link.sock, static_cast<int>(static_cast<int64_t>(i) * entries / kProbes),
               25 + i % 4);
      begin = Clock::now();
      check(maapi_candidate_commit(link.sock), "commit");
      check(yarrow_sub_read(listener.sock, 60'000, &batch), "batch");
      probes.push_back(ms_since(begin));
      yarrow_batch_free(batch);
    }
    std::sort(probes.begin(), probes.end());

    begin = Clock::now();
    for (int i = 0; i < kCommits; ++i) {
      edit_one(link.sock, i % entries, i / entries % 2 == 0 ? 30 : 31);
      check(maapi_candidate_commit(link.sock), "commit");
      check(yarrow_sub_read(listener.sock, 60'000, &batch), "batch");
      yarrow_batch_free(batch);
    }
    double thousand = ms_since(begin);
    printf("%8d %9.0f %9.0f %9.0f %9u %10.2f %10.2f %12.0f", entries, load, commit, told, changes,
           probes[kProbes / 2], probes.back(), thousand);
  }
  agent::stop(*handle);
  handle.reset();
  Clock::time_point begin = Clock::now();
  handle = agent::start(options, &error);
  printf(" %9.0f\n", ms_since(begin));
  handle.reset();
  std::filesystem::remove_all(directory);
}

}  // namespace

int main() {
  printf(
      "All times in ms. load: XML to candidate; told: commit call to the batch read; one: commit\n"
      "call to batch, one entry changed (median, worst of %d); 1000: as many commits of one "
      "entry,\n"
      "edits and batches included; start: of an agent with this configuration on disk.\n\n",
      kProbes);
  printf("%8s %9s %9s %9s %9s %10s %10s %12s %9s\n", "entries", "load", "commit", "told", "changes",
         "one", "one worst", "1000", "start");
  for (int entries : {1'000, 10'000, 100'000}) measure(entries);
  return 0;
}
