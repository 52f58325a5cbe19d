// SPDX-License-Identifier: Apache-2.0
//
// A host that keeps running: asked over its socket, while commits are made at its agent.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "host/agent_link.h"
#include "host/forwarding.h"
#include "host/http_server.h"
#include "host/live_server.h"
#include "support/golden.h"
#include "support/paths.h"
#include "support/process.h"
#include "tool/live_request.h"
#include "yarrow/yarrow_maapi.h"

namespace {

const std::string kConfig = std::string(kGoldenDir) + "/polctl/forward.xml";
const std::string kTlocs = std::string(kGoldenDir) + "/polctl/forward_tlocs.jsonl";

class ServeTest : public testing::Test {
 protected:
  void SetUp() override { start({"--config", kConfig, "--tlocs", kTlocs}); }

  void start(const std::vector<std::string>& options) {
    socket_ = testing::TempDir() + "polctl_serve_" + std::to_string(getpid()) + ".sock";
    std::vector<std::string> args = {"serve", "--port", "0", "--socket", socket_};
    args.insert(args.end(), options.begin(), options.end());
    server_.reset();
    server_ = std::make_unique<Running>(kPolctlPath, args);
    std::string line = server_->next_line();
    size_t at = line.find("port ");
    ASSERT_NE(at, std::string::npos) << line;
    port_ = static_cast<uint16_t>(std::stoi(line.substr(at + 5)));
  }

  Outcome ask(std::vector<std::string> args, const std::string& input = "") {
    args.push_back("--live=" + socket_);
    return run_polctl({args, input});
  }

  void commit(const std::string& xml) {
    polctl::ConfigSession session(port_);
    std::vector<polctl::ConfigFault> faults;
    polctl::SourceFiles files = polctl::open_configuration({temporary_file(xml)});
    session.load(files, &faults);
    ASSERT_TRUE(faults.empty());
    ASSERT_TRUE(session.commit(files, &faults));
  }

  void remove(const std::vector<std::string>& paths) {
    sockaddr_in address = polctl::agent_address(port_);
    int sock = polctl::agent_socket();
    maapi_connect(sock, reinterpret_cast<sockaddr*>(&address), sizeof address);
    maapi_start_user_session3(sock, "test", "test", nullptr, nullptr);
    int trans =
        maapi_start_trans_flags2(sock, MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr, nullptr);
    for (const std::string& path : paths) {
      EXPECT_EQ(maapi_delete(sock, trans, "%s", path.c_str()), YARROW_OK) << path;
    }
    EXPECT_EQ(maapi_apply_trans(sock, trans, 0), YARROW_OK);
    EXPECT_EQ(maapi_candidate_commit(sock), YARROW_OK);
    maapi_close(sock);
  }

  // What the socket answers to bytes; "" when it just closes.
  std::string raw(const std::string& bytes) const {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = polctl::socket_address(socket_);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return exchanged(fd, bytes);
  }

  static std::string exchanged(int fd, const std::string& bytes) {
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    std::string answer;
    char block[4096];
    for (ssize_t got = 0; (got = recv(fd, block, sizeof block, 0)) > 0;) {
      answer.append(block, static_cast<size_t>(got));
    }
    close(fd);
    return answer;
  }

  // The server's lines up to the first that holds a text, or to its end.
  std::string next_until(const std::string& end) {
    std::string all;
    for (std::string line; all.find(end) == std::string::npos;) {
      line = server_->next_line();
      if (line.empty()) break;
      all += line + "\n";
    }
    return all;
  }

  std::string socket_;
  uint16_t port_ = 0;
  std::unique_ptr<Running> server_;
};

TEST_F(ServeTest, AShellAsksTheHostAndChangesTheConfigurationOfItsAgent) {
  Outcome shell = ask({"shell"},
                      "configure\nset policy control-policy fresh default-action accept\ncommit\n"
                      "exit\nshow policy fresh\nshow labels\nshow status\n");
  EXPECT_EQ(shell.err, "");
  for (const char* said : {"control-policy fresh", "vpn-label", "worker"}) {
    EXPECT_NE(shell.out.find(said), std::string::npos) << said << " in " << shell.out;
  }
  EXPECT_NE(ask({"show", "configuration", "policy", "control-policy"}).out.find("fresh"),
            std::string::npos);
}

TEST_F(ServeTest, AnswersAsTheCommandsDoAndFollowsCommits) {
  for (const char* command : {"labels", "document"}) {
    Outcome live = ask({command});
    Outcome alone = run_polctl({{command, "--config", kConfig, "--tlocs", kTlocs}, ""});
    EXPECT_EQ(live.out, alone.out) << live.err;
    EXPECT_EQ(live.status, 0);
  }
  EXPECT_NE(ask({"graph"}).out.find("data-policy branch <- forwarding from-service"),
            std::string::npos);
  Outcome eval = ask({"eval", "--policy", "out", "--json"}, "10.0.0.0/8\nnonsense\n");
  EXPECT_EQ(eval.status, 2);
  EXPECT_NE(eval.out.find("\"action\":\"reject\""), std::string::npos);
  EXPECT_EQ(eval.err.rfind("<stdin>:2:1: error: ", 0), 0u) << eval.err;
  const std::string expected = R"({"type":"route","policy":"out","expect":{"action":"accept"}})";
  Outcome tests = ask({"test", "-", temporary_file("\n" + expected)}, expected);
  EXPECT_EQ(tests.status, 1) << tests.err;
  EXPECT_NE(tests.out.find(":2: failed: "), std::string::npos) << tests.out;

  commit(R"(<policy xmlns="urn:zenodra:policy"><lists><tloc-list><name>hubs</name><tloc>
      <address>10.0.0.3</address><color>mpls</color><encap>ipsec</encap></tloc></tloc-list>
      <app-list><name>fresh</name></app-list></lists></policy>)");
  EXPECT_NE(ask({"labels"}).out.find(", 10.0.0.3 mpls ipsec label 1003"), std::string::npos);
  EXPECT_NE(ask({"document"})
                .out.find("<address>10.0.0.3</address><color>mpls</color><encap>ipsec"
                          "</encap></tloc></tloc-list>"),
            std::string::npos);
  EXPECT_NE(ask({"graph"}).out.find("app-list fresh"), std::string::npos);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
  EXPECT_NE(access(socket_.c_str(), F_OK), 0) << "its file goes with it";
}

TEST_F(ServeTest, CountsWhatItDecidesUntilItIsCleared) {
  commit(R"(<policy xmlns="urn:zenodra:policy"><lists><prefix-list><name>a</name><prefix>
      <prefix>10.0.0.0/8</prefix></prefix></prefix-list></lists><control-policy><name>counted</name>
      <sequence><number>10</number>
      <match><type>route</type><tag>5</tag><prefix-list>a</prefix-list></match><action>
      <action-value>accept</action-value><set><preference>7</preference></set></action></sequence>
      <sequence><number>20</number><match><type>route</type><prefix-list>b</prefix-list></match>
      <action><action-value>reject</action-value></action></sequence></control-policy></policy>)");
  const std::string tagged = R"({"type":"route","prefix":"10.0.0.0/8","tag":5})";
  ask({"eval", "--policy", "counted"}, tagged + "\n" + tagged + "\n10.0.0.0/8\nnonsense\n");
  ask({"eval", "--policy", "counted", "--direction", "out"}, tagged + "\n");
  ask({"labels"});  // until they are written: data policies are shown with theirs
  std::string said;
  auto show = [&](std::vector<std::string> words) {
    words.insert(words.begin(), "show");
    said += "--- " + polctl::joined(words, " ") + "\n" + ask(words).out;
  };
  show({"policy", "counted"});
  show({"policy", "counted", "--json"});
  show({"policy", "branch"});
  show({"lists"});
  auto holds = [&](const char* text) {
    return ask({"show", "--json"}).out.find(text) != std::string::npos;
  };
  EXPECT_TRUE(holds("\"refused\":1,")) << "the route that was none";
  EXPECT_TRUE(holds("\"last_commit\":{"));
  EXPECT_FALSE(holds("\"commits\":0,"));
  ask({"clear", "counters"});
  EXPECT_TRUE(holds("\"commits\":0,"));
  show({"policy", "counted"});
  expect_golden("polctl/serve_show.txt", said);
  // The lines are read aside.
  const std::string line =
      "\n  + set policy control-policy counted sequence 10 match route tag 5\n";
  while (ask({"show", "commits"}).out.find(line) == std::string::npos) usleep(10'000);
  EXPECT_NE(ask({"show", "policy", "outt"}).err.find("did you mean out?"), std::string::npos);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

// As a service: the manager hears when it serves and when it ends, the log is one object a line.
TEST_F(ServeTest, TellsItsServiceManagerAndLogsEveryEventInOneForm) {
  server_.reset();
  sockaddr_un manager = polctl::socket_address(socket_ + ".notify");
  unlink(manager.sun_path);
  int told = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(bind(told, reinterpret_cast<sockaddr*>(&manager), sizeof manager), 0);
  auto next = [&] {
    char text[256];
    pollfd ready = {told, POLLIN, 0};
    ssize_t size = poll(&ready, 1, 30'000) == 1 ? recv(told, text, sizeof text, 0) : 0;
    return std::string(text, static_cast<size_t>(size));
  };
  const std::string options = temporary_file("config = " + kConfig + "\ntlocs = " + kTlocs +
                                             "\nport = 0\nsocket = " + socket_ + "\nlog = json\n");
  setenv("NOTIFY_SOCKET", manager.sun_path, 1);
  server_ = std::make_unique<Running>(kPolctlPath,
                                      std::vector<std::string>{"serve", "--options", options});
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(next().rfind("READY=1\nSTATUS=follows the agent at port ", 0), 0u);
  kill(server_->pid(), SIGHUP);
  std::string events;
  while (events.find("SIGHUP") == std::string::npos) {
    const std::string line = server_->next_line();
    const auto event = nlohmann::json::parse(line, nullptr, false);
    ASSERT_TRUE(event.is_object()) << line;
    EXPECT_EQ(event["program"], "polctl");
    events += event["what"].get<std::string>() + '\n';
  }
  EXPECT_NE(events.find("the host serves\n"), std::string::npos) << events;
  kill(server_->pid(), SIGTERM);
  EXPECT_EQ(next(), "STOPPING=1");
  close(told);
  unlink(manager.sun_path);
}

// Whoever watches sees what others commit, is told that the agent went, and finds it again.
TEST_F(ServeTest, IsWatchedUntilItGoes) {
  int port = port_;
  Running once(kPolctlPath, {"watch", "--agent=" + std::to_string(port)}, STDERR_FILENO);
  Running again(kPolctlPath, {"watch", "--agent=" + std::to_string(port), "--json", "--reconnect"},
                STDERR_FILENO);
  EXPECT_NE(once.next_line().find("walked; 1 user registered"), std::string::npos);
  usleep(500'000);  // the one that tells nothing at first
  const std::string edit =
      R"(<policy xmlns="urn:zenodra:policy"><lists><site-list><name>spokes</name>
      <site><id>77</id></site></site-list></lists></policy>)";
  commit(edit);
  std::string told;
  while (told.find("called back 1 time") == std::string::npos) {
    std::string line = once.next_line();
    ASSERT_NE(line, "") << told;
    told += line + "\n";
  }
  EXPECT_NE(told.find("\n  + set policy lists site-list spokes site 77\n"), std::string::npos)
      << told;
  auto next = [&] { return nlohmann::json::parse(again.next_line(), nullptr, false); };
  nlohmann::json line;
  do line = next();
  while (line.is_object() && line["lines"].dump().find("site 77") == std::string::npos);
  ASSERT_TRUE(line.is_object());
  EXPECT_EQ(line["calls"]["out"], 1);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
  EXPECT_EQ(once.next_line(), "");
  EXPECT_EQ(once.stop(0), 1);
  server_ = std::make_unique<Running>(
      kPolctlPath, std::vector<std::string>{"serve", "--port", std::to_string(port), "--socket",
                                            socket_, "--config", kConfig});
  server_->next_line();
  usleep(1'500'000);
  commit(edit);
  do line = next();
  while (line.is_object() && line["lines"].dump().find("site 77") == std::string::npos);
  EXPECT_TRUE(line.is_object());
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

class HttpTest : public ServeTest {
 protected:
  void SetUp() override {
    start({"--config", kConfig, "--tlocs", kTlocs, "--http", "127.0.0.1:0"});
    std::string line = server_->next_line();
    ASSERT_EQ(line.rfind("page: http://127.0.0.1:", 0), 0u) << line;
    http_port_ = static_cast<uint16_t>(std::stoi(line.substr(23)));
    host_ = "Host: localhost:" + std::to_string(http_port_) + "\r\n";
  }

  int connected() const {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = polctl::agent_address(http_port_);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return fd;
  }

  // All that is answered to these bytes.
  std::string http(const std::string& bytes) const { return exchanged(connected(), bytes); }
  std::string get(const std::string& target) const {
    return http("GET " + target + " HTTP/1.1\r\n" + host_ + "\r\n");
  }

  uint16_t http_port_ = 0;
  std::string host_;
};

TEST_F(HttpTest, AnswersWhoMayAskWhatMayBeAsked) {
  const std::string foreign = "Host: policy.example:" + std::to_string(http_port_) + "\r\n";
  const struct {
    std::string request;
    const char* status;
    const char* holds;
  } rows[] = {
      {"GET / HTTP/1.1\r\n" + host_, "200", "<title>polctl</title>"},
      {"GET /healthz HTTP/1.1\r\n" + host_, "200", "\r\n\r\nok\n"},
      {"GET /api/status HTTP/1.1\r\n" + host_, "200", "\"inside\":true"},
      {"GET /api/graph HTTP/1.1\r\nAccept-Encoding: br, gzip\r\nRange: bytes=0-1\r\n" + host_,
       "200", "\r\n\r\n{\"nodes\":[\n"},
      {"GET /api/lists HTTP/1.1\r\n" + host_, "200", "[{\"type\":\"site-list\","},
      {"GET /api/policy?name=out HTTP/1.1\r\n" + host_, "200", "[{\"kind\":\"control-policy\""},
      {"GET /api/policy?name=none HTTP/1.1\r\n" + host_, "400", "no policy \"none\""},
      {"GET /api/eval?policy=out&route=prefix%3D10.0.0.0/8 HTTP/1.1\r\n" + host_, "200",
       "\"steps\":["},
      {"GET /api/eval?policy=out&route=prefix%3Dx HTTP/1.1\r\n" + host_, "400", "error"},
      {"GET /api/eval?policy=out&direction=up HTTP/1.1\r\n" + host_, "400", "\"up\" is unknown"},
      {"HEAD /healthz HTTP/1.1\r\n" + host_, "200", "Content-Length: 3\r\n"},
      {"GET /etc/passwd HTTP/1.1\r\n" + host_, "404", "nothing"},
      {"GET /../../etc/passwd HTTP/1.1\r\n" + host_, "404", ""},
      {"POST /api/status HTTP/1.1\r\nContent-Length: 2\r\n" + host_, "405", "Allow: GET, HEAD"},
      {"GET / HTTP/1.1\r\n" + foreign, "421", "--http-host"},
      {"GET / HTTP/1.1\r\n" + host_ + foreign, "421", ""},
      {"GET / HTTP/1.1\r\n", "421", ""},
      {"nonsense\r\n", "400", ""},
  };
  for (const auto& row : rows) {
    std::string answer = http(row.request + "\r\n");
    EXPECT_EQ(answer.substr(0, 12), std::string("HTTP/1.1 ") + row.status) << row.request << answer;
    EXPECT_NE(answer.find(row.holds), std::string::npos) << row.request << answer;
    if (row.status == std::string("400") && *row.holds == '\0') continue;
    for (const char* header : {"Content-Security-Policy: default-src 'none'; script-src 'sha256-",
                               "frame-ancestors 'none'", "X-Content-Type-Options: nosniff",
                               "Cache-Control: no-store", "Connection: close"}) {
      EXPECT_NE(answer.find(header), std::string::npos) << row.request << answer;
    }
    EXPECT_EQ(answer.find("Set-Cookie"), std::string::npos);
  }
  EXPECT_EQ(http(std::string(polctl::HttpServer::kMaxRequest, 'x')), "") << "too long to be one";
  EXPECT_EQ(
      run_polctl({{"serve", "--port", "0", "--socket", socket_ + "2", "--http", "0.0.0.0:0"}, ""})
          .status,
      2)
      << "beyond this machine only by a name";
  std::string findings;
  do findings = get("/api/check");
  while (findings.find("\"ready\":false") != std::string::npos);
  EXPECT_NE(findings.find("is named, but absent"), std::string::npos) << findings;
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

// Whoever drips or does not read holds a place and nothing else: not the host, not the others.
TEST_F(HttpTest, SlowClientsHoldNothingUp) {
  std::vector<int> slow;
  for (size_t i = 0; i < polctl::HttpServer::kMaxClients + 4; ++i) {
    slow.push_back(connected());
    EXPECT_EQ(send(slow.back(), "GET ", 4, MSG_NOSIGNAL), 4);
  }
  EXPECT_EQ(ask({"show", "lists"}).status, 0);
  EXPECT_NE(get("/healthz").find("ok"), std::string::npos);
  for (int fd : slow) close(fd);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(HttpTest, MetricsAreAsTheyWere) {
  ask({"eval", "--policy", "out"}, "10.0.0.0/8\n10.1.0.0/16\n");
  commit(R"(<policy xmlns="urn:zenodra:policy"><lists><app-list><name>"q\</name></app-list></lists>
      </policy>)");
  ask({"document"});
  const std::string answer = get("/metrics");
  EXPECT_NE(answer.find("Content-Type: application/openmetrics-text; version=1.0.0"),
            std::string::npos);
  // How often the worker was asked hangs on how commits meet.
  std::string told = answer.substr(answer.find("\r\n\r\n") + 4);
  told = std::regex_replace(told, std::regex("(_created|_seconds_sum|_seconds_count|_bytes) .*"),
                            "$1 #");
  told = std::regex_replace(told,
                            std::regex("(polctl_(worker_requests|callbacks|commits|changes)_total.*"
                                       "|commit_number|agent_sessions) "
                                       "[0-9]+"),
                            "$1 #");
  told = std::regex_replace(told, std::regex("version=\"[^\"]*\""), "version=\"#\"");
  expect_golden("polctl/serve_metrics.txt", told);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(ServeTest, PoliciesThatGoLeaveTheDocumentAndComeBackToIt) {
  std::string before = ask({"document"}).out;
  std::vector<std::string> all = {"/policy/data-policy{branch}",
                                  "/policy/app-route-policy{quality}",
                                  "/policy/cflowd-template{flows}", "/policy/control-policy{out}"};
  for (int round = 0; round < 2; ++round) {
    remove(all);
    std::string empty = ask({"document"}).out;
    EXPECT_EQ(empty.find("branch"), std::string::npos) << empty;
    EXPECT_EQ(empty.find("flows"), std::string::npos) << empty;
    EXPECT_EQ(ask({"graph"}).out.find("undefined"), std::string::npos);
    commit(read_golden("polctl/forward.xml"));
    EXPECT_EQ(ask({"document"}).out, before);
  }
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(ServeTest, KeepsToItsUserAndToItsBounds) {
  struct stat status;
  ASSERT_EQ(stat(socket_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  EXPECT_EQ(run_polctl({{"serve", "--port", "0", "--socket", socket_}, ""}).status, 2)
      << "one host a socket";
  EXPECT_EQ(run_polctl({{"serve", "--port", std::to_string(port_), "--socket", socket_ + "2"}, ""})
                .status,
            2)
      << "one agent a port";

  polctl::LiveRequest request = {polctl::DumpOptions(), ""};
  std::string options = polctl::encode_options(request);
  auto head = [](size_t options_size, size_t input_size) {
    return polctl::encode(polctl::RequestHead{static_cast<uint32_t>(options_size),
                                              static_cast<uint32_t>(input_size)});
  };
  EXPECT_EQ(raw("GET / HTTP/1.0\r\n\r\n"), "");
  EXPECT_EQ(raw(head(polctl::kMaxRequestOptions + 1, 0)), "");
  EXPECT_EQ(raw(head(2, polctl::kMaxRequestInput + 1)), "");
  for (const char* bad : {"{}", "[]", "nonsense", R"({"command":"serve"})",
                          R"({"command":"dump","topic":7})", R"({"command":"dump","topic":"x"})"}) {
    EXPECT_NE(raw(head(strlen(bad), 0) + bad).find("polctl: error: "), std::string::npos) << bad;
  }

  // Clients that say nothing do not keep others from an answer, though they hold every place.
  std::vector<int> silent;
  for (size_t i = 0; i < polctl::LiveServer::kMaxClients + 4; ++i) {
    silent.push_back(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = polctl::socket_address(socket_);
    ASSERT_EQ(connect(silent.back(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  std::vector<std::thread> clients;
  for (int i = 0; i < 4; ++i) {
    clients.emplace_back([&] {
      EXPECT_NE(raw(head(options.size(), 0) + options).find("ROUTE POLICIES"), std::string::npos);
    });
  }
  for (std::thread& client : clients) client.join();
  for (int fd : silent) close(fd);
  EXPECT_EQ(server_->stop(SIGINT), 0);
}

// What the forwarding manager is given, the schema takes as received policy.
TEST_F(ServeTest, TheDocumentIsValidAsReceivedPolicy) {
  commit(ask({"document"}).out);
  EXPECT_NE(ask({"dump", "users"}).status, 2) << "the host passes over what is none of its own";
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(ServeTest, TakesUpWhatIsConfiguredLater) {
  start({"--from-service", "branch", "--apply", "out:out"});
  EXPECT_EQ(server_->next_line(), "policy \"out\" is not configured yet");
  EXPECT_EQ(server_->next_line(), "to be applied, but not configured: data-policy \"branch\"");
  commit(read_golden("polctl/forward.xml"));
  EXPECT_NE(ask({"document"}).out.find("<data-policy><name>branch</name>"), std::string::npos);
  std::string graph = ask({"graph", "--json"}).out;
  EXPECT_NE(graph.find(R"("name":"routing out","direction":"out")"), std::string::npos) << graph;
  // A name that nobody configures is told, and holds up nobody but the worker.
  commit(R"(<policy xmlns="urn:zenodra:policy"><data-policy><name>branch</name><vpn-list>
      <name>gone</name></vpn-list></data-policy></policy>)");
  EXPECT_NE(ask({"document"}).err.find("not configured: vpn-list \"gone\""), std::string::npos);
  EXPECT_EQ(ask({"labels"}).status, 0);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(ServeTest, TheRoutingDaemonDecidesAnewWhatItsPolicyCallsBackFor) {
  const std::string routes = temporary_file("10.1.0.0/16\n10.2.0.0/16\n# none\n11.0.0.0/8\n");
  start({"--config", kConfig, "--routes", routes, "--apply", "edge:in"});
  auto policy = [](const char* sequence) {
    return std::string(
               R"(<policy xmlns="urn:zenodra:policy"><lists><prefix-list><name>a</name><prefix>
        <prefix>10.0.0.0/8</prefix><le>32</le></prefix></prefix-list></lists><control-policy>
        <name>edge</name><sequence><number>10</number>)") +
           sequence + "</sequence></control-policy></policy>";
  };
  struct {
    const char* commit; /* of sequence 10 */
    const char* told;
  } const steps[] = {
      {"<match><type>route</type><prefix-list>a</prefix-list></match><action><action-value>accept"
       "</action-value></action>",
       "routes: 2 of 3 accepted by edge"},
      {"<action><set><preference>7</preference></set></action>",
       "routes: 2 of 3 accepted by edge, 2 answers changed"},
      {"<action><set><tloc-list>hubs</tloc-list></set></action>",  // outbound alone
       "routes: 2 of 3 accepted by edge, 0 answers changed"},
      {"<match><type>route</type><tag>5</tag></match>",
       "routes: 0 of 3 accepted by edge, 2 answers changed"},
  };
  for (const auto& step : steps) {
    commit(policy(step.commit));
    EXPECT_NE(next_until("accepted by edge").find(std::string(step.told) + "\n"), std::string::npos)
        << step.told;
  }
  // Nobody is called back for a list that nobody uses, nor asked by a file that is wrong.
  commit(R"(<policy xmlns="urn:zenodra:policy"><lists><site-list><name>s</name></site-list></lists>
      </policy>)");
  std::ofstream(routes) << "10.1.0.0/16\n10.2.0.0\n";
  kill(server_->pid(), SIGHUP);
  EXPECT_NE(next_until("hangup").find("the routes stay as they were: " + routes + ":2:"),
            std::string::npos);
  EXPECT_NE(next_until("accepted by").find("0 of 3 accepted by edge, 0 answers changed"),
            std::string::npos);
  std::ofstream(routes) << "11.0.0.0/8\n";
  kill(server_->pid(), SIGHUP);
  next_until("0 of 1 accepted by edge\n");
  const std::string status = ask({"show", "--json"}).out;
  EXPECT_NE(status.find("\"answers_changed\":4,\"rounds\":6,"), std::string::npos) << status;
  EXPECT_NE(status.find("\"routes\":1,"), std::string::npos) << status;
  EXPECT_NE(
      ask({"show", "policy", "edge", "--json"})
          .out.find(R"("sequence":10,"vpn-list":null,"action":"accept","accepted":6,"rejected":0)"),
      std::string::npos);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(ServeTest, AnnouncesWhatACommitChanges) {
  start({"--config", kConfig, "--announce", "--apply", "out:out"});
  commit(R"(<policy xmlns="urn:zenodra:policy"><control-policy><name>out</name><sequence>
      <number>1</number><match><type>route</type><tag>77</tag></match><action>
      <action-value>accept</action-value></action></sequence></control-policy></policy>)");
  // Labels that the worker writes are commits too.
  std::string told = next_until("1 kind of routes answered differently");
  EXPECT_NE(told.find("tag 77"), std::string::npos) << told;
  commit(R"(<policy xmlns="urn:zenodra:policy"><lists><site-list><name>unused</name></site-list>
      </lists></policy>)");
  std::string unchanged = next_until("no route is answered differently");
  EXPECT_NE(unchanged.find("no route is answered differently"), std::string::npos) << unchanged;
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(ServeTest, AReaderThatStandsStillHoldsNothingUp) {
  server_->fill();
  for (int i = 0; i < 3; ++i) {
    commit("<policy xmlns=\"urn:zenodra:policy\"><lists><site-list><name>n" + std::to_string(i) +
           "</name></site-list></lists></policy>");
  }
  EXPECT_EQ(ask({"dump", "site-lists"}).status, 0);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(ServeTest, AHangupReadsTheTlocsAgain) {
  std::string tlocs = temporary_file(R"({"address":"10.0.0.1","color":1,"encap":2,"label":7})");
  start({"--config", kConfig, "--tlocs", tlocs});
  EXPECT_EQ(ask({"labels"}).out.find("label 8"), std::string::npos);
  std::ofstream(tlocs) << R"({"address":"10.0.0.1","color":1,"encap":2,"label":8})";
  kill(server_->pid(), SIGHUP);
  std::string line;
  do line = server_->next_line();
  while (!line.empty() && line.rfind("hangup: 1 TLOCs read", 0) != 0);
  EXPECT_NE(line, "");
  EXPECT_NE(ask({"labels"}).out.find("10.0.0.1 mpls ipsec label 8"), std::string::npos);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

TEST_F(ServeTest, KeepsItsConfigurationAndNoSocketButItsOwn) {
  std::string directory = testing::TempDir() + "polctl_dir_" + std::to_string(getpid());
  start({"--config", kConfig, "--dir", directory});
  std::string before = ask({"dump", "vpn-lists"}).out;
  // Another's socket has come in the place of its own.
  unlink(socket_.c_str());
  std::ofstream(socket_) << "another's";
  EXPECT_EQ(server_->stop(SIGTERM), 0);
  EXPECT_EQ(access(socket_.c_str(), F_OK), 0);
  unlink(socket_.c_str());
  start({"--dir", directory});
  auto named = [](const std::string& dump) { return dump.find("vpn-list: corporate"); };
  EXPECT_NE(named(before), std::string::npos);
  EXPECT_NE(named(ask({"dump", "vpn-lists"}).out), std::string::npos);
  EXPECT_EQ(server_->stop(SIGTERM), 0);
}

}  // namespace
