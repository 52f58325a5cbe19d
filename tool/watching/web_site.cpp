// SPDX-License-Identifier: Apache-2.0
#include "tool/watching/web_site.h"

#include <fmt/format.h>

#include <chrono>

#include "host/address_text.h"
#include "host/config_feed.h"
#include "host/input_error.h"
#include "host/source_file.h"
#include "tool/config_findings.h"
#include "tool/graph_writer.h"
#include "tool/json_line.h"
#include "tool/route_option.h"
#include "tool/watching/answers.h"
#include "tool/watching/page.h"
#include "tool/watching/policy_view.h"

namespace polctl {

namespace {

constexpr int kAnswerMs = 60'000;
std::string given(const HttpRequest& request, const char* name) {
  auto found = request.query.find(name);
  return found != request.query.end() ? found->second : "";
}

uint32_t one_of(const HttpRequest& request, const char* name, uint32_t absent,
                const std::map<std::string, uint32_t>& words) {
  std::string word = given(request, name);
  if (word.empty()) return absent;
  auto found = words.find(word);
  if (found == words.end()) {
    throw InputError(fmt::format("polctl: error: {}: {} is unknown", name, in_quotes(word)));
  }
  return found->second;
}

}  // namespace

std::string findings_json(uint16_t port) {
  ConfigFeed feed(port);
  ConfigFeed::Batch batch = feed.read(kAnswerMs);
  if (!batch) throw InputError("agent: error: it says nothing (expected its configuration)");
  std::vector<std::string> findings;
  for (const ConfigFinding& finding : findings_in(batch.get(), POL_DIR_NONE)) {
    findings.push_back(fmt::format(
        R"({{"path":{},"severity":"{}","what":{},"expected":{}}})", json_string(finding.path),
        finding.is_error ? "error" : "warning", json_string(finding.what),
        finding.expected.empty() ? "null" : json_string(finding.expected)));
  }
  return "[" + joined(findings, ",\n") + "]";
}

HttpAnswer WebSite::answer(const HttpRequest& request) {
  if (generation_ != watch_.generation()) {
    generation_ = watch_.generation();
    cache_.clear();
    graph_.reset();
  }
  const std::string& path = request.path;
  auto shown = [&](const char* what, const std::string& name) {
    ShowOptions options;
    options.what = what;
    options.name = name;
    options.json = true;
    return printed([&](Output* out) { watch_.show(options, out); });
  };
  if (path == "/") return {200, "text/html; charset=utf-8", kPage};
  if (path == "/healthz") return {200, "text/plain; charset=utf-8", "ok\n"};
  if (path == "/metrics") return metrics();
  if (path == "/api/status") return {200, "application/json", shown("status", "")};
  if (path == "/api/commits") return {200, "application/json", as_array(shown("commits", ""))};
  if (path == "/api/policy") {
    return {200, "application/json", as_array(shown("policy", given(request, "name")))};
  }
  if (path == "/api/graph") {
    return {200, "application/json", cached(path, write_graph_json)};
  }
  if (path == "/api/lists") {
    auto write = [](const Graph& graph, Output* out) { write_lists(graph, true, out); };
    return {200, "application/json", as_array(cached(path, write))};
  }
  if (path == "/api/check") return check();
  if (path == "/api/eval") return eval(request);
  return {404, "text/plain; charset=utf-8", "there is nothing of that name\n"};
}

const std::string& WebSite::cached(const std::string& what, void (*write)(const Graph&, Output*)) {
  auto [place, fresh] = cache_.try_emplace(what);
  if (!graph_) graph_ = read_graph(watch_.source().configured());
  if (fresh) place->second = printed([&](Output* out) { write(*graph_, out); });
  return place->second;
}

HttpAnswer WebSite::metrics() {
  if (!graph_) graph_ = read_graph(watch_.source().configured());
  return {200, "application/openmetrics-text; version=1.0.0; charset=utf-8",
          printed([&](Output* out) { write_metrics(watch_.status(), *graph_, out); })};
}

// Looking through a large configuration takes seconds. What is there of an earlier one is told
// meanwhile, and that it is.
HttpAnswer WebSite::check() {
  bool done =
      checking_.valid() && checking_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  if (done) {
    checked_generation_ = checking_generation_;
    try {
      checked_ = checking_.get();
    } catch (const InputError& error) {
      checked_.clear();
      return {503, "text/plain; charset=utf-8", error.what() + std::string("\n")};
    }
  }
  bool ready = !checked_.empty() && checked_generation_ == generation_;
  if (!ready && !checking_.valid()) {
    checking_generation_ = generation_;
    checking_ = std::async(std::launch::async, findings_json, watch_.source().live()->port);
  }
  return {
      200, "application/json",
      fmt::format("{{\"ready\":{},\"findings\":{}}}\n", ready, checked_.empty() ? "[]" : checked_)};
}

// Looking counts nothing: what is asked here is not what the host was asked to decide.
HttpAnswer WebSite::eval(const HttpRequest& request) {
  EvalOptions options;
  options.policy = given(request, "policy");
  options.kind = one_of(request, "kind", POL_KIND_ROUTE,
                        {{"route", POL_KIND_ROUTE}, {"membership", POL_KIND_MEMBERSHIP}});
  options.direction =
      one_of(request, "direction", POL_DIR_NONE, {{"in", POL_DIR_IN}, {"out", POL_DIR_OUT}});
  options.json = true;
  options.explain = true;
  MemoryFile route(route_lines({given(request, "route")}));
  options.routes = route.path();
  options.routes_name = "route";
  options.source.config = {"running configuration"};  // what messages call the source
  return {200, "application/json", printed([&](Output* out) { answer_eval(options, out); })};
}

const char* page_policy() { return kPagePolicy; }

// A script's text ends at "</": what is embedded must not have it.
std::string page_with(const std::map<std::string, std::string>& answers) {
  std::string data;
  for (const auto& [path, answer] : answers) {
    data += fmt::format("{}{}:{}", data.empty() ? "" : ",", json_string(path), answer);
  }
  std::string safe;
  for (char c : "{" + data + "}") safe += c == '<' ? std::string("\\u003c") : std::string(1, c);
  constexpr std::string_view kPlace = "{\"DATA\":0}";
  std::string page = kPage;
  page.replace(page.find(kPlace), kPlace.size(), safe);
  return page;
}

}  // namespace polctl
