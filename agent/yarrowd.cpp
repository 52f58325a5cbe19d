// SPDX-License-Identifier: Apache-2.0
//
// yarrowd - the management agent as a process.
#include <getopt.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "agent/yarrow_agent.h"
#include "yarrow/yarrow_types.h"

namespace {

agent::Handle* g_handle = nullptr;

void on_signal(int /*signal*/) { agent::request_stop(*g_handle); }

template <typename Number>
bool number_of(const char* text, Number* number) {
  std::string_view view = text;
  auto [end, status] = std::from_chars(view.data(), view.data() + view.size(), *number);
  return status == std::errc() && end == view.data() + view.size();
}

int usage(FILE* out) {
  fputs(
      "usage: yarrowd [--dir DIRECTORY] [--port PORT] [--socket PATH] [--group NAME]\n"
      "               [--allow-uid UID]...\n"
      "  --dir DIRECTORY  keep the running configuration there (default: in memory only)\n"
      "  --port PORT      listen on 127.0.0.1 port PORT; 0 takes a free one (default: 3010,\n"
      "                   or what the environment variable YARROW_IPC_PORT says)\n"
      "  --socket PATH    listen on a Unix socket there too (default: what the environment "
      "variable\n"
      "                   YARROW_IPC_PATH says, else " YARROW_PATH
      ", there only if\n"
      "                   the port is 3010 and the directory can be written to)\n"
      "  --group NAME     let this group connect to the Unix socket (default: its owner alone)\n"
      "  --allow-uid UID  serve processes of this user too\n"
      "Prints \"yarrowd: port PORT\", and \"yarrowd: socket PATH\" if there is one, once it "
      "serves.\n"
      "SIGTERM ends it.\n",
      out);
  return out == stdout ? 0 : 2;
}

// Where the agent of the machine has its Unix socket. Without the right to make it there is none:
// clients find the port.
std::string usual_path() {
  const std::string directory = std::string(YARROW_PATH, strrchr(YARROW_PATH, '/'));
  mkdir(directory.c_str(), 0755);
  if (access(directory.c_str(), W_OK) == 0) return YARROW_PATH;
  syslog(LOG_NOTICE, "no socket %s: %s", YARROW_PATH, strerror(errno));
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {{"dir", required_argument, nullptr, 'd'},
                                    {"port", required_argument, nullptr, 'p'},
                                    {"socket", required_argument, nullptr, 's'},
                                    {"group", required_argument, nullptr, 'g'},
                                    {"allow-uid", required_argument, nullptr, 'u'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  agent::Options options;
  options.port = YARROW_PORT;
  const char* variable = secure_getenv(YARROW_PORT_VARIABLE);
  if (variable != nullptr && !number_of(variable, &options.port)) return usage(stderr);
  const char* path = secure_getenv(YARROW_PATH_VARIABLE);
  if (path != nullptr) options.socket_path = path;
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    uid_t uid = 0;
    bool good = true;
    if (letter == 'd') {
      options.directory = optarg;
    } else if (letter == 'p') {
      good = number_of(optarg, &options.port);
    } else if (letter == 's') {
      options.socket_path = optarg;
    } else if (letter == 'g') {
      options.socket_group = optarg;
    } else if (letter == 'u') {
      good = number_of(optarg, &uid);
      options.allowed_uids.push_back(uid);
    } else {
      return usage(letter == 'h' ? stdout : stderr);
    }
    if (!good) return usage(stderr);
  }
  if (optind != argc) return usage(stderr);
  openlog("yarrowd", LOG_PID, LOG_DAEMON);
  bool named = path != nullptr || !options.socket_path.empty();
  if (!named && options.port == YARROW_PORT) options.socket_path = usual_path();
  if (options.socket_path.empty() && !options.socket_group.empty()) {
    fputs("yarrowd: --group is for a Unix socket (expected --socket PATH)\n", stderr);
    return 2;
  }
  std::string error;
  std::shared_ptr<agent::Handle> handle = agent::start(options, &error);
  if (!handle) {
    fprintf(stderr, "yarrowd: %s\n", error.c_str());
    return 1;
  }
  g_handle = handle.get();
  struct sigaction action = {};
  action.sa_handler = on_signal;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  printf("yarrowd: port %u\n", unsigned{agent::port(*handle)});
  if (!options.socket_path.empty()) printf("yarrowd: socket %s\n", options.socket_path.c_str());
  fflush(stdout);
  agent::run(*handle);
  return 0;
}
