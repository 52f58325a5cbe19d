// SPDX-License-Identifier: Apache-2.0
//
// yarrowd - the management agent as a process.
#include <fcntl.h>
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>

#include "agent/log.h"
#include "agent/yarrow_agent.h"
#include "yarrow/yarrow_types.h"

namespace {

enum class Command : uint8_t { kServe, kCheck, kBackup, kRestore };

struct CommandLine {
  Command command = Command::kServe;
  agent::Options options;
  std::string file;  // of a backup
  agent::LogTarget log = agent::LogTarget::kStderr;
};

template <typename Number>
bool number_of(const char* text, Number* number) {
  std::string_view view = text;
  auto [end, status] = std::from_chars(view.data(), view.data() + view.size(), *number);
  return status == std::errc() && end == view.data() + view.size();
}

int usage(FILE* out) {
  fputs(
      "usage: yarrowd [--dir DIRECTORY] [--port PORT] [--socket PATH] [--group NAME]\n"
      "               [--allow-uid UID]... [--log WHERE]\n"
      "       yarrowd --recover DIRECTORY [--port PORT]...\n"
      "       yarrowd --check DIRECTORY\n"
      "       yarrowd --dir DIRECTORY --backup FILE | --restore FILE\n"
      "  --dir DIRECTORY      keep the running configuration there (default: in memory only)\n"
      "  --port PORT          listen on 127.0.0.1 port PORT; 0 takes a free one (default: 3010,\n"
      "                       or what the environment variable YARROW_IPC_PORT says)\n"
      "  --socket PATH        listen on a Unix socket there too (default: what the environment\n"
      "                       variable YARROW_IPC_PATH says, else, if the port is 3010 and the\n"
      "                       directory can be written to, " YARROW_PATH
      ")\n"
      "  --group NAME         let this group connect to the Unix socket (default: its owner)\n"
      "  --allow-uid UID      serve processes of this user too\n"
      "  --log WHERE          stderr (the default), syslog, or json, an object a line on stderr\n"
      "  --recover DIRECTORY  as --dir; a damaged file there is kept under another name, and the\n"
      "                       agent goes on from its last good commit\n"
      "  --check DIRECTORY    say what a start would find there, and end\n"
      "  --backup FILE        copy what the directory keeps to a new file, and end; the agent may "
      "be\n"
      "                       running\n"
      "  --restore FILE       put a backup into the directory, and end; what is there is kept "
      "under\n"
      "                       another name\n"
      "  --version            print the version, and end\n"
      "Prints \"yarrowd: port PORT\", and \"yarrowd: socket PATH\" if there is one, once it "
      "serves.\n"
      "SIGTERM ends it. The exit status is 1 when "
      "it\n"
      "cannot start or a check finds damage, 2 for a wrong command line.\n",
      out);
  return out == stdout ? 0 : 2;
}

int wrong(const char* what) {
  fprintf(stderr, "yarrowd: %s (see yarrowd --help)\n", what);
  return 2;
}

// Where the agent of the machine has its Unix socket; without the right to make it nowhere, and
// clients find the port.
std::string usual_path() {
  const std::string directory(YARROW_PATH, strrchr(YARROW_PATH, '/'));
  mkdir(directory.c_str(), 0755);
  return access(directory.c_str(), W_OK) == 0 ? YARROW_PATH : "";
}

// Takes the arguments; -1 to go on, else the exit status.
int read_arguments(int argc, char** argv, CommandLine* line) {
  static const option kOptions[] = {{"dir", required_argument, nullptr, 'd'},
                                    {"port", required_argument, nullptr, 'p'},
                                    {"socket", required_argument, nullptr, 's'},
                                    {"group", required_argument, nullptr, 'g'},
                                    {"allow-uid", required_argument, nullptr, 'u'},
                                    {"log", required_argument, nullptr, 'l'},
                                    {"recover", required_argument, nullptr, 'r'},
                                    {"check", required_argument, nullptr, 'c'},
                                    {"backup", required_argument, nullptr, 'b'},
                                    {"restore", required_argument, nullptr, 'R'},
                                    {"version", no_argument, nullptr, 'V'},
                                    {"help", no_argument, nullptr, 'h'},
                                    {nullptr, 0, nullptr, 0}};
  agent::Options& options = line->options;
  options.port = YARROW_PORT;
  const char* path = secure_getenv(YARROW_PATH_VARIABLE);
  if (path != nullptr) options.socket_path = path;
  const char* variable = secure_getenv(YARROW_PORT_VARIABLE);
  if (variable != nullptr && !number_of(variable, &options.port)) {
    return wrong(YARROW_PORT_VARIABLE " in the environment is no port from 0 to 65535");
  }
  auto command = [&](Command what) {
    bool first = line->command == Command::kServe;
    line->command = what;
    return first ? -1 : wrong("--check, --backup and --restore do not go together");
  };
  auto directory = [&] {
    bool first = !options.directory.has_value();
    options.directory = optarg;
    return first ? -1 : wrong("more than one directory");
  };
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    int status = -1;
    uid_t uid = 0;
    switch (letter) {
      case 'd':
        status = directory();
        break;
      case 'r':
        options.recover = true;
        status = directory();
        break;
      case 'c':
        status = directory();
        if (status < 0) status = command(Command::kCheck);
        break;
      case 'b':
      case 'R':
        line->file = optarg;
        status = command(letter == 'b' ? Command::kBackup : Command::kRestore);
        break;
      case 'p':
        if (!number_of(optarg, &options.port)) status = wrong("--port takes a port, 0 to 65535");
        break;
      case 's':
        options.socket_path = optarg;
        break;
      case 'g':
        options.socket_group = optarg;
        break;
      case 'u':
        if (!number_of(optarg, &uid)) status = wrong("--allow-uid takes the number of a user");
        options.allowed_uids.push_back(uid);
        break;
      case 'l':
        if (!agent::log_target_of(optarg, &line->log)) {
          status = wrong("--log takes stderr, syslog or json");
        }
        break;
      case 'V':
        printf("yarrowd %s\n", YARROWD_VERSION);
        return 0;
      case 'h':
        return usage(stdout);
      default:
        return wrong("a wrong option");
    }
    if (status >= 0) return status;
  }
  if (optind != argc) return wrong("arguments without an option");
  if (line->command != Command::kServe && (options.recover || !options.directory)) {
    return wrong("--backup and --restore take --dir DIRECTORY");
  }
  bool serves = line->command == Command::kServe;
  if (serves && options.socket_path.empty() && options.port == YARROW_PORT) {
    options.socket_path = usual_path();
  }
  if (options.socket_path.empty() && !options.socket_group.empty()) {
    return wrong("--group is for a Unix socket, --socket PATH");
  }
  return -1;
}

// A file of the state directory must never be taken for standard output.
void fill_standard_descriptors() {
  int handle = open("/dev/null", O_RDWR | O_CLOEXEC);
  while (handle >= 0 && handle <= STDERR_FILENO) handle = dup(handle);
  if (handle >= 0) close(handle);
}

// Signals come to one thread that waits for them, and interrupt nothing.
sigset_t block_signals() {
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);  // a limit on file sizes is a failed write like any other
  sigset_t signals;
  sigemptyset(&signals);
  for (int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

void wait_for_end(const sigset_t& signals, agent::Handle& handle) {
  for (int number = 0; sigwait(&signals, &number) == 0;) {
    if (number != SIGHUP) break;
    agent::log_line(agent::LogLevel::kNotice,
                    "SIGHUP: nothing to reread, the options are those of the start");
  }
  agent::request_stop(handle);
}

int serve(const CommandLine& line) {
  sigset_t signals = block_signals();
  std::string error;
  std::shared_ptr<agent::Handle> handle = agent::start(line.options, &error);
  if (!handle) {
    agent::log_line(agent::LogLevel::kError, "the agent does not start", {{"reason", error}});
    if (line.log == agent::LogTarget::kSyslog)
      fprintf(stderr, "yarrowd: %s\n", agent::visible_text(error).c_str());
    return 1;
  }
  agent::log_line(agent::LogLevel::kNotice, "the agent starts",
                  {{"version", YARROWD_VERSION},
                   {"port", agent::port(*handle)},
                   {"path", line.options.socket_path},
                   {"directory", line.options.directory.value_or("")},
                   {"commit", agent::commit(*handle)}});
  printf("yarrowd: port %u\n", unsigned{agent::port(*handle)});
  if (!line.options.socket_path.empty()) {
    printf("yarrowd: socket %s\n", agent::visible_text(line.options.socket_path).c_str());
  }
  fflush(stdout);
  std::thread waiter([&] { wait_for_end(signals, *handle); });
  agent::run(*handle);
  kill(getpid(), SIGTERM);  // the waiter's end, had the server ended by itself
  waiter.join();
  agent::log_line(agent::LogLevel::kNotice, "the agent ends", {{"commit", agent::commit(*handle)}});
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_descriptors();
  CommandLine line;
  int status = read_arguments(argc, argv, &line);
  if (status >= 0) return status;
  agent::log_to(line.log, "yarrowd");
  const std::string& directory = line.options.directory.value_or("");
  std::string text;
  bool done = false;
  switch (line.command) {
    case Command::kServe:
      return serve(line);
    case Command::kCheck:
      done = agent::check(directory, &text);
      break;
    case Command::kBackup:
      done = agent::backup(directory, line.file, &text);
      break;
    case Command::kRestore:
      done = agent::restore(directory, line.file, &text);
      break;
  }
  fprintf(done ? stdout : stderr, "yarrowd: %s\n", agent::visible_text(text).c_str());
  return done ? 0 : 1;
}
