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

#include "agent/yarrow_agent.h"
#include "platform/service/log.h"
#include "platform/service/notify.h"
#include "platform/service/options_file.h"
#include "yarrow/yarrow_types.h"

namespace {

enum class Command : uint8_t { kServe, kCheck, kBackup, kRestore };

struct CommandLine {
  Command command = Command::kServe;
  agent::Options options;
  std::string file;          // of a backup
  std::string options_file;  // "": none
  bool print_config = false;
  std::string log = "stderr";
};

template <typename Number>
bool number_of(std::string_view text, Number* number) {
  auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), *number);
  return status == std::errc() && end == text.data() + text.size();
}

int usage(FILE* out) {
  fputs(
      "usage: yarrowd [--dir DIRECTORY] [--port PORT] [--socket PATH] [--group NAME]\n"
      "               [--allow-uid UID]... [--log WHERE] [--options FILE] [--print-config]\n"
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
      "  --options FILE       take the six options above from a file too, a line each, such as\n"
      "                       port = 3010; the command line's take the place of its\n"
      "  --print-config       print the options in force as such a file, and end\n"
      "  --recover DIRECTORY  as --dir; a damaged file there is kept under another name, and the\n"
      "                       agent goes on from its last good commit\n"
      "  --check DIRECTORY    say what a start would find there, and end\n"
      "  --backup FILE        copy what the directory keeps to a new file, and end; the agent may\n"
      "                       be running\n"
      "  --restore FILE       put a backup into the directory, and end; what is there is kept\n"
      "                       under another name\n"
      "  --version            print the version, and end\n"
      "Prints \"yarrowd: port PORT\", and \"yarrowd: socket PATH\" if there is one, once it\n"
      "serves. SIGTERM ends it. The exit status is 1 when it cannot start or a check finds\n"
      "damage, 2 for a wrong command line.\n",
      out);
  return out == stdout ? 0 : 2;
}

int wrong(const std::string& what) {
  fprintf(stderr, "yarrowd: %s\n", what.c_str());
  return 2;
}

// Where the agent of the machine has its Unix socket; without the right to make it nowhere, and
// clients find the port.
std::string usual_path() {
  const std::string directory(YARROW_PATH, strrchr(YARROW_PATH, '/'));
  mkdir(directory.c_str(), 0755);
  return access(directory.c_str(), W_OK) == 0 ? YARROW_PATH : "";
}

const option kOptions[] = {{"dir", required_argument, nullptr, 'd'},
                           {"port", required_argument, nullptr, 'p'},
                           {"socket", required_argument, nullptr, 's'},
                           {"group", required_argument, nullptr, 'g'},
                           {"allow-uid", required_argument, nullptr, 'u'},
                           {"log", required_argument, nullptr, 'l'},
                           {"options", required_argument, nullptr, 'o'},
                           {"print-config", no_argument, nullptr, 'P'},
                           {"recover", required_argument, nullptr, 'r'},
                           {"check", required_argument, nullptr, 'c'},
                           {"backup", required_argument, nullptr, 'b'},
                           {"restore", required_argument, nullptr, 'R'},
                           {"version", no_argument, nullptr, 'V'},
                           {"help", no_argument, nullptr, 'h'},
                           {nullptr, 0, nullptr, 0}};
// What a file may say; the others ask for something to be done.
constexpr std::string_view kInFile = "dpsgul";
constexpr std::string_view kNamesInFile = "dir, port, socket, group, allow-uid or log";
constexpr std::string_view kNameDirectory = "drc";

// Takes an option's value. What is wrong with it, nullptr if nothing is.
const char* take(int letter, const std::string& value, CommandLine* line) {
  agent::Options& options = line->options;
  uid_t uid = 0;
  service::LogTarget target = service::LogTarget::kOff;
  switch (letter) {
    case 'd':
    case 'r':
    case 'c':
      if (options.directory) return "more than one directory";
      options.directory = value;
      options.recover = letter == 'r';
      if (letter != 'c') return nullptr;
      break;
    case 'p':
      return number_of(value, &options.port) ? nullptr : "--port takes a port, 0 to 65535";
    case 's':
      options.socket_path = value;
      return nullptr;
    case 'g':
      options.socket_group = value;
      return nullptr;
    case 'u':
      if (!number_of(value, &uid)) return "--allow-uid takes the number of a user";
      options.allowed_uids.push_back(uid);
      return nullptr;
    case 'l':
      line->log = value;
      return service::log_target_of(value, &target) ? nullptr
                                                    : "--log takes stderr, syslog or json";
    case 'o':
      line->options_file = value;
      return nullptr;
    case 'P':
      line->print_config = true;
      return nullptr;
    default:  // backup, restore
      line->file = value;
      break;
  }
  bool first = line->command == Command::kServe;
  line->command = letter == 'c'   ? Command::kCheck
                  : letter == 'b' ? Command::kBackup
                                  : Command::kRestore;
  return first ? nullptr : "--check, --backup and --restore do not go together";
}

// Takes what the file says and the command line, whose letters are `given`, does not. What is wrong,
// "" if nothing is.
std::string take_file(const std::string& given, CommandLine* line) {
  std::vector<service::FileOption> found;
  std::string reason;
  if (!service::options_file_read(line->options_file, &found, &reason)) return reason;
  std::string seen;
  for (const service::FileOption& each : found) {
    auto fault = [&](const std::string& what) {
      return service::options_file_fault(
          line->options_file, each.line, what,
          "NAME = VALUE, with the name " + std::string(kNamesInFile));
    };
    const option* known = kOptions;
    while (known->name != nullptr && each.name != known->name) ++known;
    auto letter = static_cast<char>(known->val);
    if (known->name == nullptr || kInFile.find(letter) == std::string_view::npos) {
      return fault("unknown option \"" + each.name + "\"");
    }
    if (!each.value) return fault("\"" + each.name + "\" has no value");
    if (letter != 'u' && seen.find(letter) != std::string::npos) {
      return fault("\"" + each.name + "\" stands twice");
    }
    seen += letter;
    bool overruled = given.find(letter) != std::string::npos ||
                     (letter == 'd' && given.find_first_of(kNameDirectory) != std::string::npos);
    // What is overruled has to be right all the same.
    CommandLine other;
    const char* wrong_value = take(letter, *each.value, overruled ? &other : line);
    if (wrong_value != nullptr) return fault(wrong_value);
  }
  return "";
}

// Takes the arguments; -1 to go on, else the exit status.
int read_arguments(int argc, char** argv, CommandLine* line) {
  agent::Options& options = line->options;
  options.port = YARROW_PORT;
  const char* path = secure_getenv(YARROW_PATH_VARIABLE);
  if (path != nullptr) options.socket_path = path;
  const char* variable = secure_getenv(YARROW_PORT_VARIABLE);
  const std::string see_help = " (see yarrowd --help)";
  if (variable != nullptr && !number_of(variable, &options.port)) {
    return wrong(YARROW_PORT_VARIABLE " in the environment is no port from 0 to 65535" + see_help);
  }
  std::string given;
  for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    if (letter == 'V') {
      printf("yarrowd %s\n", YARROWD_VERSION);
      return 0;
    }
    if (letter == 'h') return usage(stdout);
    if (letter == '?') return wrong("a wrong option" + see_help);
    given += static_cast<char>(letter);
    const char* fault = take(letter, optarg == nullptr ? "" : optarg, line);
    if (fault != nullptr) return wrong(fault + see_help);
  }
  if (optind != argc) return wrong("arguments without an option" + see_help);
  if (!line->options_file.empty()) {
    std::string fault = take_file(given, line);
    if (!fault.empty()) return wrong(fault);
  }
  if (line->command != Command::kServe && (options.recover || !options.directory)) {
    return wrong("--backup and --restore take --dir DIRECTORY" + see_help);
  }
  return -1;
}

int print_config(const CommandLine& line) {
  const agent::Options& options = line.options;
  auto print = [](const char* name, const std::string& value) {
    auto in_file = value.empty() ? std::nullopt : std::make_optional(service::visible_text(value));
    fputs(service::options_file_line(name, in_file).c_str(), stdout);
  };
  print("dir", options.directory.value_or(""));
  print("port", std::to_string(options.port));
  print("socket", options.socket_path);
  print("group", options.socket_group);
  for (uid_t uid : options.allowed_uids) print("allow-uid", std::to_string(uid));
  if (options.allowed_uids.empty()) print("allow-uid", "");
  print("log", line.log);
  return fflush(stdout) == 0 ? 0 : 1;
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
    service::log_line(service::LogLevel::kNotice,
                      "SIGHUP: nothing to reread, the options are those of the start");
  }
  service::notify_stopping();
  agent::request_stop(handle);
}

int serve(CommandLine line) {
  if (line.options.socket_path.empty() && line.options.port == YARROW_PORT) {
    line.options.socket_path = usual_path();
  }
  if (line.options.socket_path.empty() && !line.options.socket_group.empty()) {
    return wrong("--group is for a Unix socket, --socket PATH (see yarrowd --help)");
  }
  sigset_t signals = block_signals();
  std::string error;
  std::shared_ptr<agent::Handle> handle = agent::start(line.options, &error);
  if (!handle) {
    service::log_line(service::LogLevel::kError, "the agent does not start", {{"reason", error}});
    if (line.log == "syslog")
      fprintf(stderr, "yarrowd: %s\n", service::visible_text(error).c_str());
    return 1;
  }
  service::log_line(service::LogLevel::kNotice, "the agent starts",
                    {{"version", YARROWD_VERSION},
                     {"port", agent::port(*handle)},
                     {"path", line.options.socket_path},
                     {"directory", line.options.directory.value_or("")},
                     {"commit", agent::commit(*handle)}});
  printf("yarrowd: port %u\n", unsigned{agent::port(*handle)});
  if (!line.options.socket_path.empty()) {
    printf("yarrowd: socket %s\n", service::visible_text(line.options.socket_path).c_str());
  }
  fflush(stdout);
  service::notify_ready("serves at port " + std::to_string(agent::port(*handle)) + ", commit " +
                        std::to_string(agent::commit(*handle)));
  std::thread waiter([&] { wait_for_end(signals, *handle); });
  agent::run(*handle);
  kill(getpid(), SIGTERM);  // the waiter's end, had the server ended by itself
  waiter.join();
  service::log_line(service::LogLevel::kNotice, "the agent ends",
                    {{"commit", agent::commit(*handle)}});
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  fill_standard_descriptors();
  CommandLine line;
  int status = read_arguments(argc, argv, &line);
  if (status >= 0) return status;
  if (line.print_config) return print_config(line);
  service::LogTarget target = service::LogTarget::kStderr;
  service::log_target_of(line.log, &target);
  service::log_to(target, "yarrowd");
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
  fprintf(done ? stdout : stderr, "yarrowd: %s\n", service::visible_text(text).c_str());
  return done ? 0 : 1;
}
