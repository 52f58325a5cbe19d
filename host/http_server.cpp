// SPDX-License-Identifier: Apache-2.0
//
// Requests are taken whole before the packaged server sees them: it takes them apart, finds the
// handler and writes the answer, on memory alone and in the host's own thread. Sockets, clients and
// their bounds are PolledServer's.
#include "http_server.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <httplib.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <set>

#include "address_text.h"
#include "input_error.h"

namespace polctl {

namespace {

// A request that is here, and the answer to it.
class Exchange : public httplib::Stream {
 public:
  explicit Exchange(std::string_view request) : request_(request) {}
  bool is_readable() const override { return true; }
  bool is_writable() const override { return true; }
  ssize_t read(char* to, size_t size) override {
    size = std::min(size, request_.size());
    memcpy(to, request_.data(), size);
    request_.remove_prefix(size);
    return static_cast<ssize_t>(size);
  }
  ssize_t write(const char* from, size_t size) override {
    answer_.append(from, size);
    return static_cast<ssize_t>(size);
  }
  void get_remote_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  void get_local_ip_and_port(std::string& /*ip*/, int& /*port*/) const override {}
  socket_t socket() const override { return -1; }
  std::string take() { return std::move(answer_); }

 private:
  std::string_view request_;
  std::string answer_;
};

struct Place {
  sockaddr_storage address = {};
  socklen_t size = 0;
  bool loopback = false;
  std::string host; /* as a URL has it */
  uint16_t port = 0;
};

[[noreturn]] void fail(const std::string& what, const char* expected) {
  throw InputError(fmt::format("polctl: error: --http: {} (expected {})", what, expected));
}

// "127.0.0.1:8080", "localhost:8080", "[::1]:8080".
Place place_of(const std::string& text) {
  Place place;
  size_t colon = text.rfind(':');
  std::string host = text.substr(0, colon);
  const char* first = colon == std::string::npos ? nullptr : text.data() + colon + 1;
  const char* last = text.data() + text.size();
  if (first == nullptr || first == last) {
    fail(in_quotes(text) + " names no port", "127.0.0.1:PORT, [::1]:PORT or a path with a /");
  }
  auto [end, error] = std::from_chars(first, last, place.port);
  if (error != std::errc() || end != last) {
    fail(in_quotes(first) + " is no port", "0 to 65535");
  }
  if (host == "localhost") host = "127.0.0.1";
  place.host = host;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&place.address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&place.address);
  if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(place.port);
    place.size = sizeof *v4;
    place.loopback = ntohl(v4->sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
    return place;
  }
  bool brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (!brackets ||
      inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &v6->sin6_addr) != 1) {
    fail(in_quotes(host) + " is no address", "one such as 127.0.0.1 or [::1]");
  }
  v6->sin6_family = AF_INET6;
  v6->sin6_port = htons(place.port);
  place.size = sizeof *v6;
  place.loopback = IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr);
  return place;
}

int listen_at(Place* place) {
  auto* address = reinterpret_cast<sockaddr*>(&place->address);
  int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  socklen_t size = place->size;
  if (fd < 0 || bind(fd, address, size) != 0 || listen(fd, PolledServer::kBacklog) != 0 ||
      getsockname(fd, address, &size) != 0) {
    int error = errno;
    if (fd >= 0) close(fd);
    fail(fmt::format("cannot listen at {}:{}: {}", place->host, place->port, strerror(error)),
         "a free port of this machine");
  }
  // Both families have it in the same place.
  place->port = ntohs(reinterpret_cast<sockaddr_in*>(&place->address)->sin_port);
  return fd;
}

// Takes out what would have the answer compressed, which takes long, or cut into parts.
std::string plain(std::string_view request) {
  std::string kept;
  while (!request.empty()) {
    size_t end = request.find("\r\n") + 2;
    std::string_view line = request.substr(0, end);
    request.remove_prefix(end);
    bool drop = false;
    for (std::string_view name : {"accept-encoding:", "range:", "expect:"}) {
      drop = drop ||
             (line.size() > name.size() && strncasecmp(line.data(), name.data(), name.size()) == 0);
    }
    if (!drop) kept += line;
    if (end == 2) break;
  }
  return kept;
}

}  // namespace

class HttpServer::Engine : public httplib::Server {
 public:
  Engine(const std::string& content_policy, const HttpServer::Handler& handler) {
    set_default_headers({{"Content-Security-Policy", content_policy},
                         {"X-Content-Type-Options", "nosniff"},
                         {"X-Frame-Options", "DENY"},
                         {"Referrer-Policy", "no-referrer"},
                         {"Cross-Origin-Resource-Policy", "same-origin"},
                         {"Cache-Control", "no-store"}});
    set_pre_routing_handler([this](const httplib::Request& request, httplib::Response& response) {
      return admit(request, &response);
    });
    Get(".*", [handler](const httplib::Request& request, httplib::Response& response) {
      HttpRequest asked = {request.path, {request.params.begin(), request.params.end()}};
      HttpAnswer answer;
      try {
        answer = handler(asked);
      } catch (const InputError& fault) {
        answer = {400, "text/plain; charset=utf-8", fault.what() + std::string("\n")};
      }
      response.status = answer.status;
      response.set_content(answer.body, answer.type);
    });
    set_error_handler([](const httplib::Request& /*request*/, httplib::Response& response) {
      if (!response.body.empty()) return;
      response.set_content(fmt::format("{}\n", response.status), "text/plain; charset=utf-8");
    });
  }

  /* A name under which it is known, with its port unless any port will do. */
  void know(const std::string& host) { hosts_.insert(host); }

  std::string answer(std::string_view request) {
    Exchange exchange(request);
    bool closed = false;
    process_request(exchange, true, closed, nullptr);
    return exchange.take();
  }

 private:
  HandlerResponse admit(const httplib::Request& request, httplib::Response* response) {
    auto refuse = [response](int status, const char* why) {
      response->status = status;
      response->set_content(why, "text/plain; charset=utf-8");
      return HandlerResponse::Handled;
    };
    std::string host = request.get_header_value("Host");
    std::transform(host.begin(), host.end(), host.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    if (request.get_header_value_count("Host") != 1 || hosts_.count(host) == 0) {
      return refuse(421, "this host is not known by that name; --http-host adds one\n");
    }
    if (request.method == "GET" || request.method == "HEAD") return HandlerResponse::Unhandled;
    response->set_header("Allow", "GET, HEAD");
    return refuse(405, "there is nothing to change here\n");
  }

  std::set<std::string> hosts_;
};

HttpServer::HttpServer(const HttpOptions& options, const Handler& handler)
    : engine_(std::make_unique<Engine>(options.content_policy, handler)) {
  if (options.listen.find('/') != std::string::npos) {
    file_.emplace(options.listen);
    listener_ = file_->listener();
    address_ = options.listen;
    engine_->know("localhost");
    for (const std::string& host : options.hosts) engine_->know(host);
    return;
  }
  Place place = place_of(options.listen);
  if (!place.loopback && options.hosts.empty()) {
    fail(fmt::format("{} can be reached from elsewhere", place.host),
         "a loopback address, or the names it is reached by with --http-host");
  }
  listener_ = listen_at(&place);
  address_ = fmt::format("http://{}:{}/", place.host, place.port);
  std::vector<std::string> hosts = options.hosts;
  if (place.loopback) hosts.insert(hosts.end(), {"localhost", "127.0.0.1", "[::1]"});
  for (const std::string& host : hosts) {
    engine_->know(fmt::format("{}:{}", host, place.port));
    if (place.port == 80) engine_->know(host);
  }
}

HttpServer::~HttpServer() = default;

size_t HttpServer::lacks(std::string_view received) const {
  if (received.find("\r\n\r\n") != std::string_view::npos) return 0;
  return received.size() < kMaxRequest ? kMaxRequest - received.size() : kNoRequest;
}

PolledServer::Answer HttpServer::answer(const std::string& request) {
  return {engine_->answer(plain(request)), -1, 0};
}

}  // namespace polctl
