// SPDX-License-Identifier: Apache-2.0
#include "agent/yarrow_agent.h"

#include <unistd.h>

#include <thread>

#include "agent/server.h"

namespace agent {

class Handle {
 public:
  Server server;
  uint16_t port = 0;
  std::thread thread;

  ~Handle() {
    if (thread.joinable()) {
      request_stop(*this);
      thread.join();
    }
  }
};

std::shared_ptr<Handle> start(const Options& options, std::string* error) {
  auto handle = std::make_shared<Handle>();
  Agent& agent = handle->server.agent;
  agent.schema = schema_load(error);
  if (!agent.schema) return nullptr;
  Result result = datastores_open(agent.stores, *agent.schema, options.directory,
                                  options.recover ? OnDamage::kRecover : OnDamage::kRefuse);
  if (result.ok()) {
    result = server_listen(handle->server, options.port, &handle->port, options.socket_path,
                           options.socket_group);
  }
  if (!result.ok()) {
    *error = result.reason;
    return nullptr;
  }
  handle->server.allowed_uids = options.allowed_uids;
  handle->server.allowed_uids.push_back(geteuid());
  return handle;
}

uint64_t commit(const Handle& handle) { return handle.server.agent.stores.commit_id(); }

uint16_t port(const Handle& handle) { return handle.port; }

void run(Handle& handle) { server_run(handle.server); }

void run_in_thread(Handle& handle) {
  handle.thread = std::thread([&handle] { server_run(handle.server); });
}

void request_stop(Handle& handle) {
  char byte = 0;
  // A full pipe has a byte in it already.
  [[maybe_unused]] ssize_t written = write(handle.server.wake[1], &byte, 1);
}

void stop(Handle& handle) {
  request_stop(handle);
  if (handle.thread.joinable()) handle.thread.join();
}

namespace {

// What an operation on a directory came to, as a line either way.
template <typename Operation>
bool report(std::string* text, const Operation& operation) {
  std::unique_ptr<Schema> schema = schema_load(text);
  if (!schema) return false;
  Result result = operation(*schema);
  if (!result.ok()) *text = result.reason;
  return result.ok();
}

}  // namespace

bool check(const std::string& directory, std::string* text) {
  return report(text, [&](const Schema& schema) { return journal_check(schema, directory, text); });
}

bool backup(const std::string& directory, const std::string& file, std::string* text) {
  return report(
      text, [&](const Schema& schema) { return journal_backup(schema, directory, file, text); });
}

bool restore(const std::string& directory, const std::string& file, std::string* text) {
  return report(
      text, [&](const Schema& schema) { return journal_restore(schema, directory, file, text); });
}

}  // namespace agent
