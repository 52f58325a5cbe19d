// SPDX-License-Identifier: Apache-2.0
//
// yarrowd - the management agent as a process.
#include <getopt.h>
#include <syslog.h>

#include <charconv>
#include <csignal>
#include <cstdio>
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
      "usage: yarrowd [--dir DIRECTORY] [--port PORT] [--allow-uid UID]...\n"
      "  --dir DIRECTORY  keep the running configuration there (default: in memory only)\n"
      "  --port PORT      listen on 127.0.0.1 port PORT; 0 takes a free one (default: 3010,\n"
      "                   or what the environment variable YARROW_IPC_PORT says)\n"
      "  --allow-uid UID  serve processes of this user too\n"
      "Prints \"yarrowd: port PORT\" once it serves. SIGTERM ends it.\n",
      out);
  return out == stdout ? 0 : 2;
}

}  // namespace

int main(int argc, char** argv) {
  static const option kOptions[] = {{"dir", required_argument, nullptr, 'd'},
                                    {"port", required_argument, nullptr, 'p'},
                                    {"allow-uid", required_argument, nullptr, 'u'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  agent::Options options;
  options.port = YARROW_PORT;
  const char* variable = getenv(YARROW_PORT_VARIABLE);
  if (variable != nullptr && !number_of(variable, &options.port)) return usage(stderr);
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    uid_t uid = 0;
    bool good = true;
    if (letter == 'd') {
      options.directory = optarg;
    } else if (letter == 'p') {
      good = number_of(optarg, &options.port);
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
  fflush(stdout);
  agent::run(*handle);
  return 0;
}
