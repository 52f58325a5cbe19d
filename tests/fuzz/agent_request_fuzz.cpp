// SPDX-License-Identifier: Apache-2.0
// Any requests of two configuration sessions and a direct one, as far as the session layer. Each
// request is the session's number, the request's, two bytes of length and as many of arguments.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "agent/session.h"
#include "agent/xml.h"

namespace {

void check_running(const agent::Agent& agent) {
  const agent::NodeRef& running = agent.stores.running();
  const std::string saved = agent::xml_save(running, {});
  agent::XmlContent content;
  if (!agent::xml_load(*agent.schema, saved, agent.schema->root, {}, &content).ok()) abort();
  std::vector<agent::Change> changes;
  agent::changes_between(running, content.node, &changes);
  if (!changes.empty()) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static agent::Agent agent;
  if (!agent.schema) {
    std::string error;
    agent.schema = agent::schema_load(&error);
    if (!agent.schema) abort();
  }
  // As a fresh agent, but for the schema.
  agent.stores.versions.clear();
  service::log_to(service::LogTarget::kOff, "");
  if (!agent::datastores_open(agent.stores, *agent.schema, std::nullopt, agent::OnDamage::kRefuse)
           .ok()) {
    abort();
  }
  constexpr size_t kSessions = 3;
  agent::Session sessions[kSessions];
  for (size_t i = 0; i < kSessions; ++i) sessions[i].id = i + 1;

  yarrow::Reader in({reinterpret_cast<const char*>(data), size});
  while (in.left() > 0) {
    agent::Session& session = sessions[in.u8() % kSessions];
    auto kind = session.id == kSessions ? yarrow::SocketKind::kCdb : yarrow::SocketKind::kMaapi;
    auto request = static_cast<yarrow::Request>(in.u8());
    const size_t length = in.u16();
    yarrow::Reader arguments(in.raw(std::min(length, in.left())));
    yarrow::Writer out;
    const agent::NodeRef before = agent.stores.running();
    const agent::Result result =
        agent::session_answer(agent, session, kind, request, arguments, out);
    // What was refused changes nothing that others see.
    if (!result.ok() && agent.stores.running() != before) abort();
    if (session.transactions.size() > 16 || agent.streams.size() > 8 * kSessions) abort();
    agent.unpublished.clear();
  }
  check_running(agent);
  for (const agent::Session& session : sessions) agent::session_end(agent, session);
  if (!agent.locks.empty() || !agent.loads.empty() || !agent.streams.empty()) abort();
  return 0;
}
