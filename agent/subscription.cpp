// SPDX-License-Identifier: Apache-2.0
//
// A subscriber is fed as fast as it reads: commits wait as records, which all subscribers share,
// and are turned into frames when there is room in the connection's output.
#include <algorithm>

#include "agent/keypath.h"
#include "agent/server.h"
#include "yarrow/yarrow_changes.h"

namespace agent {

namespace {

constexpr size_t kMaxPending = 256;
constexpr size_t kOutputTarget = 512u << 10;
constexpr size_t kFrameTarget = 128u << 10;

bool wanted(const Connection& connection, const Change& change) {
  const std::string& path = change.schema->path;
  const std::string& filter = connection.filter;
  if (path.compare(0, filter.size(), filter) != 0) return false;
  return path.size() == filter.size() || path[filter.size()] == '/';
}

bool touches(const Connection& connection, const CommitRecord& commit) {
  return std::any_of(commit.changes.begin(), commit.changes.end(),
                     [&](const Change& change) { return wanted(connection, change); });
}

// Two commits told as one. What changed is found when it is told: a subscriber that stands still
// would have it found anew with every commit.
CommitRef joined(const CommitRef& first, const CommitRef& second) {
  auto both = std::make_shared<CommitRecord>();
  both->commit = second->commit;
  both->before = first->before;
  both->after = second->after;
  return both;
}

void find_changes(CommitRef* commit) {
  if (!(*commit)->changes.empty() || (*commit)->before == (*commit)->after) return;
  auto found = std::make_shared<CommitRecord>(**commit);
  changes_between(found->before, found->after, &found->changes);
  *commit = std::move(found);
}

void add_frame(Connection& connection, yarrow::Writer& frame) {
  frame.patch_u32(0, static_cast<uint32_t>(frame.size() - 4));
  connection.out += frame.bytes();
}

yarrow::Writer begin_frame(yarrow::PushKind kind) {
  yarrow::Writer frame;
  frame.u32(0);
  frame.u8(static_cast<uint8_t>(kind));
  return frame;
}

void add_changes(Connection& connection, const CommitRecord& commit) {
  yarrow::Writer frame = begin_frame(yarrow::PushKind::kChanges);
  size_t count_at = frame.size();
  uint32_t count = 0;
  frame.u32(0);
  while (connection.next_change < commit.changes.size() && frame.size() < kFrameTarget) {
    const Change& change = commit.changes[connection.next_change++];
    if (!wanted(connection, change)) continue;
    change_encode(change, frame);
    ++count;
  }
  if (count == 0) return;
  frame.patch_u32(count_at, count);
  add_frame(connection, frame);
  if (frame.size() > yarrow::kMaxFrame) connection.dead = true;  // the client would not take it
}

}  // namespace

Result subscription_begin(const Agent& agent, Connection& connection, yarrow::Reader& in) {
  Path path;
  Result result = path_parse(*agent.schema, in.text(yarrow::kMaxPath), &path);
  uint32_t flags = in.u32();
  if (!result.ok()) return result;
  if (!in.ok()) return failed(YARROW_ERR_PROTOCOL, "a hello cut short");
  for (const Step& step : path) {
    if (!step.keys.empty()) {
      return failed(YARROW_ERR_BADPATH, "a subscription is to paths without keys");
    }
  }
  connection.filter = path.empty() ? "" : path.back().schema->path;
  if ((flags & YARROW_SUB_INITIAL) == 0) return {};
  auto initial = std::make_shared<CommitRecord>();
  initial->commit = agent.stores.commit_id();
  initial->before = empty_tree(*agent.schema);
  initial->after = agent.stores.running();
  connection.pending.push_back(std::move(initial));
  return {};
}

void subscription_publish(Server& server, const CommitRef& commit) {
  for (Connection& connection : server.connections) {
    bool subscribed = connection.kind == yarrow::SocketKind::kSubscription &&
                      connection.state == Connection::State::kServing;
    if (!subscribed || !touches(connection, *commit)) continue;
    connection.pending.push_back(commit);
    // The first may be half told; what comes after it can still be told as one.
    while (connection.pending.size() > kMaxPending) {
      CommitRef both = joined(connection.pending[1], connection.pending[2]);
      connection.pending.erase(connection.pending.begin() + 1);
      connection.pending[1] = std::move(both);
    }
  }
}

void subscription_fill(Connection& connection) {
  while (!connection.pending.empty() && !connection.dead &&
         connection.out.size() - connection.out_sent < kOutputTarget) {
    if (!connection.in_batch) find_changes(&connection.pending.front());
    const CommitRecord& commit = *connection.pending.front();
    if (!connection.in_batch) {
      yarrow::Writer frame = begin_frame(yarrow::PushKind::kBatchBegin);
      frame.u64(commit.commit);
      add_frame(connection, frame);
      connection.in_batch = true;
      connection.next_change = 0;
    }
    add_changes(connection, commit);
    if (connection.next_change < commit.changes.size()) continue;
    yarrow::Writer frame = begin_frame(yarrow::PushKind::kBatchEnd);
    add_frame(connection, frame);
    connection.in_batch = false;
    connection.pending.pop_front();
  }
}

}  // namespace agent
