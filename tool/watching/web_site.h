/* SPDX-License-Identifier: Apache-2.0
 *
 * web_site.h - what is behind a running host's HTTP server, and the page that shows it; also as one
 * file, of a configuration that nobody runs.
 */
#ifndef TOOL_WATCHING_WEB_SITE_H
#define TOOL_WATCHING_WEB_SITE_H

#include <future>
#include <map>
#include <optional>
#include <string>

#include "host/http_server.h"
#include "tool/watching/host_watch.h"

namespace polctl {

/* Answers, in the host's thread; what takes long is done aside and asked for again.
 *
 *   /                      the page
 *   /healthz               "ok"
 *   /metrics               OpenMetrics text
 *   /api/status            as "show status --json"; likewise
 *   /api/commits, /api/lists, /api/policy?name=N     arrays
 *   /api/graph             as "graph --json"
 *   /api/check             findings of the running configuration: {"ready":true,"findings":[...]}
 *   /api/eval?policy=N&route=prefix=P,tag=T&direction=in&kind=route   as "eval --json --explain"
 */
class WebSite {
 public:
  explicit WebSite(HostWatch* watch) : watch_(*watch) {}

  HttpAnswer answer(const HttpRequest& request);

 private:
  HttpAnswer eval(const HttpRequest& request);
  HttpAnswer check();
  HttpAnswer metrics();
  const std::string& cached(const std::string& what, void (*write)(const Graph&, Output*));

  HostWatch& watch_;
  uint64_t generation_ = UINT64_MAX; /* of what is cached */
  std::map<std::string, std::string> cache_;
  std::optional<Graph> graph_;
  std::future<std::string> checking_;
  uint64_t checking_generation_ = 0;
  std::string checked_; /* the last findings; "": none yet */
  uint64_t checked_generation_ = 0;
};

/* The findings of the configuration that an agent runs, as a JSON array. Throws InputError. */
std::string findings_json(uint16_t port);

/* The page's header Content-Security-Policy. */
const char* page_policy();
/* The page with the answers to its requests in it, by their path: then it makes none. */
std::string page_with(const std::map<std::string, std::string>& answers);

}  // namespace polctl

#endif
