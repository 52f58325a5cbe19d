/* SPDX-License-Identifier: Apache-2.0
 *
 * http_server.h - what a running host tells over HTTP: to look at, never to change.
 *
 * GET and HEAD alone, one request a connection, of at most kMaxRequest bytes, without cookies. A
 * request is answered when it names a host under which this one is known: a page of somebody else's,
 * whose name leads to the loopback address, learns nothing. Whoever may connect to the address may
 * read: on the loopback address every user of this machine, at a path this user alone.
 */
#ifndef HOST_HTTP_SERVER_H
#define HOST_HTTP_SERVER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "polled_server.h"

namespace polctl {

struct HttpRequest {
  std::string path;                         /* without what follows the "?" */
  std::map<std::string, std::string> query; /* a name given twice counts once */
};

struct HttpAnswer {
  int status = 200;
  std::string type = "application/json";
  std::string body;
};

struct HttpOptions {
  std::string listen; /* "127.0.0.1:8080", "[::1]:0" or a path; port 0 takes a free one */
  std::vector<std::string> hosts; /* further names; needed to listen beyond the loopback address */
  std::string content_policy;     /* of the page: the header Content-Security-Policy */
};

class HttpServer : public PolledServer {
 public:
  static constexpr size_t kMaxRequest = size_t{16} * 1024;
  using Handler = std::function<HttpAnswer(const HttpRequest&)>;

  /* What the handler throws as InputError is the reason of a 400. Throws InputError when it cannot
   * listen there, or may not. */
  HttpServer(const HttpOptions& options, const Handler& handler);
  ~HttpServer() override;

  /* Where it listens, as a browser takes it; of a path the path. */
  const std::string& address() const { return address_; }

 protected:
  size_t lacks(std::string_view received) const override;
  Answer answer(const std::string& request) override;

 private:
  class Engine;
  std::string address_;
  std::optional<SocketFile> file_;
  std::unique_ptr<Engine> engine_;
};

}  // namespace polctl

#endif
