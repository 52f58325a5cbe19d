// SPDX-License-Identifier: Apache-2.0
#include "agent/session.h"

#include <algorithm>
#include <ctime>

#include "agent/edits.h"
#include "agent/keypath.h"
#include "agent/rebase.h"
#include "agent/xml.h"
#include "platform/service/log.h"
#include "yarrow/yarrow_cdb.h"

namespace agent {

namespace {

using yarrow::Reader;
using yarrow::Request;
using yarrow::SocketKind;
using yarrow::Writer;

constexpr size_t kMaxTransactions = 16;
constexpr size_t kMaxStreamsEach = 8;
constexpr int64_t kStreamWait = 60'000;
constexpr size_t kMaxLoading = 2 * size_t{yarrow::kMaxLoadText};  // unfinished, of all sessions
constexpr int64_t kLoadPause = 10'000;  // after which an unfinished load gives way to another
constexpr size_t kMaxName = 127;
constexpr size_t kMaxComment = 1000;
constexpr uint32_t kMaxMinutes = 7 * 24 * 60;  // that a commit may wait to be confirmed
constexpr size_t kSchemaChunk = 512u << 10;

Result no_session() { return failed(YARROW_ERR_PROTOCOL, "no user session"); }

// Null, with the reason in `result`, if there is none, or none that may be written.
Transaction* transaction_of(Session& session, Reader& in, bool for_writing, Result* result) {
  auto at = session.transactions.find(static_cast<int>(in.u32()));
  if (at == session.transactions.end()) {
    *result = failed(YARROW_ERR_PROTOCOL, "no such transaction");
    return nullptr;
  }
  if (for_writing && !at->second.writable) {
    *result = failed(YARROW_ERR_ACCESS, "a transaction for reading");
    return nullptr;
  }
  if (for_writing && at->second.ended) {
    *result = failed(YARROW_ERR_PROTOCOL, "the transaction is applied already");
    return nullptr;
  }
  return &at->second;
}

Result path_of(const Agent& agent, Reader& in, Path* path) {
  std::string_view text = in.text(yarrow::kMaxPath);
  if (!in.ok()) return failed(YARROW_ERR_PROTOCOL, "a request cut short");
  return path_parse(*agent.schema, text, path);
}

Result check_lock(const Agent& agent, const Session& session, int datastore) {
  auto held = agent.locks.find(datastore);
  if (held == agent.locks.end() || held->second == session.id) return {};
  return failed(YARROW_ERR_LOCKED, "another session holds the lock");
}

int datastore_of_cdb(int number) {
  switch (number) {
    case CDB_RUNNING:
      return MAAPI_RUNNING;
    case CDB_CANDIDATE:
      return MAAPI_CANDIDATE;
    case CDB_OPERATIONAL:
      return MAAPI_OPERATIONAL;
    default:
      return 0;
  }
}

void log_limit(Agent& agent, const Session& session, const char* limit) {
  service::log_burst(agent.limits, service::LogLevel::kWarning, "a session reaches a limit",
                     {{"limit", limit}, {"user", session.user}, {"client", session.client_id}});
}

Result limit_reached(Agent& agent, const Session& session, const char* limit) {
  log_limit(agent, session, limit);
  return failed(YARROW_ERR_TOOBIG, limit);
}

Result start_session(Agent& agent, Session& session, Reader& in) {
  if (session.started) return failed(YARROW_ERR_ALREADY, "the socket has its user session");
  session.user = in.text(kMaxName);
  session.context = in.text(kMaxName);
  session.client_id = in.text(kMaxName);
  session.source = in.text(kMaxName);
  if (!in.ok() || session.user.empty()) return failed(YARROW_ERR_PROTOCOL, "no user");
  session.started = true;
  agent.sessions[session.id] = {session.user,   session.context, session.client_id,
                                session.source, time(nullptr),   false};
  return {};
}

// The candidate as its session sees it: running with the session's edits. Edits that cannot be
// carried over to what running has become stay on what they began from; a commit will refuse them.
const NodeRef& candidate_root(const Agent& agent, Session& session) {
  Candidate& candidate = session.candidate;
  const NodeRef& running = agent.stores.running();
  if (!candidate.base) return running;
  NodeRef target = running;
  if (candidate.base != running && rebase(candidate.base, candidate.root, &target).ok()) {
    candidate = {running, target};
  }
  return candidate.root;
}

const NodeRef* root_of(const Agent& agent, Session& session, int datastore) {
  if (datastore == MAAPI_CANDIDATE) return &candidate_root(agent, session);
  return datastore_root(agent.stores, datastore);
}

void set_candidate(const Agent& agent, Session& session, const NodeRef& root) {
  Candidate& candidate = session.candidate;
  if (!candidate.base) candidate.base = agent.stores.running();
  candidate.root = root;
  if (candidate.root == candidate.base) candidate = {};
}

Result start_transaction(Agent& agent, Session& session, Reader& in, Writer& out) {
  Transaction trans;
  trans.datastore = static_cast<int>(in.u32());
  uint32_t mode = in.u32();
  const NodeRef* root = root_of(agent, session, trans.datastore);
  if (root == nullptr) return failed(YARROW_ERR_PROTOCOL, "no such datastore");
  if (mode != MAAPI_READ && mode != MAAPI_READ_WRITE) {
    return failed(YARROW_ERR_PROTOCOL, "no such mode");
  }
  if (session.transactions.size() == kMaxTransactions) {
    return limit_reached(agent, session, "too many transactions");
  }
  trans.writable = mode == MAAPI_READ_WRITE;
  trans.base = trans.root = *root;
  int handle = session.next_transaction++;
  session.transactions.emplace(handle, std::move(trans));
  out.u32(static_cast<uint32_t>(handle));
  return {};
}

// The reads, alike in a transaction and in a direct session.
Result answer_read(const Agent& agent, const NodeRef& root, Request request, Reader& in,
                   Writer& out) {
  Path path;
  Result result = path_of(agent, in, &path);
  if (!result.ok()) return result;
  if (request == Request::kExists) {
    out.u32(node_exists(root, path) ? 1 : 0);
    return {};
  }
  if (request == Request::kNumInstances) {
    uint32_t count = 0;
    result = count_entries(root, path, &count);
    out.u32(count);
    return result;
  }
  std::string text;
  result = read_text(root, path, &text);
  out.text(text);
  return result;
}

Result answer_edit(const Agent& agent, Transaction& trans, Request request, Reader& in) {
  Path path;
  Result result = path_of(agent, in, &path);
  if (!result.ok()) return result;
  Editor editor{*agent.schema, trans.datastore == MAAPI_OPERATIONAL, &trans.root};
  switch (request) {
    case Request::kSetValue:
      return edit_set_value(editor, path, in);
    case Request::kSetText:
      return edit_set_text(editor, path, in.text(yarrow::kMaxValueText + 1));
    case Request::kCreate:
      return edit_create(editor, path);
    case Request::kSetObject:
      return edit_set_object(editor, path, in);
    default:
      return edit_delete(editor, path);
  }
}

// Hands a commit on to the subscribers, and says in the log what became of it.
void publish(Agent& agent, const Session& session, const CommitRef& record, const Result& result) {
  if (!result.ok()) {
    service::log_burst(agent.refusals, service::LogLevel::kWarning, "commit refused",
                       {{"commit", agent.stores.commit_id()},
                        {"user", session.user},
                        {"client", session.client_id},
                        {"reason", result.reason}});
  }
  if (!record) return;
  service::log_line(service::LogLevel::kInfo, "commit done",
                    {{"commit", record->commit},
                     {"user", session.user},
                     {"client", session.client_id},
                     {"context", session.context},
                     {"source", session.source},
                     {"changes", record->changes.size()},
                     {"comment", agent.stores.versions.back().note.comment}});
  agent.unpublished.push_back(record);
}

CommitNote note_of(const Session& session) {
  CommitNote note;
  note.user = session.user;
  note.client = session.client_id;
  return note;
}

Result apply(Agent& agent, Session& session, Transaction& trans, bool keep_open) {
  Result result = check_lock(agent, session, trans.datastore);
  if (!result.ok()) return result;
  if (trans.datastore == MAAPI_CANDIDATE) {
    NodeRef target = candidate_root(agent, session);
    result = rebase(trans.base, trans.root, &target);
    if (result.ok()) set_candidate(agent, session, target);
  } else {
    CommitRef record;
    result = datastore_apply(agent.stores, trans.datastore, trans.base, trans.root,
                             note_of(session), &record);
    if (trans.datastore == MAAPI_RUNNING) publish(agent, session, record, result);
  }
  if (!result.ok()) return result;
  trans.ended = !keep_open;
  trans.base = trans.root = *root_of(agent, session, trans.datastore);
  return {};
}

Result validate(const Agent& agent, Session& session, const Transaction& trans) {
  if (trans.datastore == MAAPI_OPERATIONAL) return {};
  if (trans.datastore == MAAPI_RUNNING) {
    return datastore_validate(agent.stores, trans.base, trans.root);
  }
  NodeRef target = candidate_root(agent, session);
  const NodeRef base = session.candidate.base ? session.candidate.base : agent.stores.running();
  Result result = rebase(trans.base, trans.root, &target);
  return result.ok() ? datastore_validate(agent.stores, base, target) : result;
}

Result commit(Agent& agent, Session& session, const CommitNote& note, CommitRef* record) {
  for (int datastore : {MAAPI_CANDIDATE, MAAPI_RUNNING}) {
    Result result = check_lock(agent, session, datastore);
    if (!result.ok()) return result;
  }
  // Gone also when it is refused: what comes next on this connection is not to fail for it.
  const Candidate candidate = std::move(session.candidate);
  session.candidate = {};
  if (!candidate.base) return {};
  Result result =
      datastore_apply(agent.stores, MAAPI_RUNNING, candidate.base, candidate.root, note, record);
  publish(agent, session, *record, result);
  return result;
}

// A commit as an operator makes it: with a comment, to be confirmed or confirming, and refused without
// the edits being lost.
Result commit_noted(Agent& agent, Session& session, Reader& in, Writer& out) {
  CommitNote note = note_of(session);
  std::string_view comment = in.text(kMaxComment);
  uint32_t minutes = in.u32();
  if (!in.ok() || minutes > kMaxMinutes) {
    return failed(YARROW_ERR_BADVALUE, "a comment or a time too long (expected 1000 bytes and " +
                                           std::to_string(kMaxMinutes) + " minutes at most)");
  }
  note.comment = comment;
  note.confirm = minutes > 0 ? Confirm::kUntil : Confirm::kConfirms;
  note.deadline = minutes > 0 ? time(nullptr) + int64_t{60} * minutes : 0;
  const Candidate kept = session.candidate;
  CommitRef record;
  Result result = commit(agent, session, note, &record);
  if (result.ok() && !record && versions_waiting(agent.stores.versions) > 0) {
    result = datastore_confirm(agent.stores, note);
    if (result.ok()) {
      service::log_line(service::LogLevel::kInfo,
                        minutes > 0 ? "commits wait longer" : "commits are confirmed",
                        {{"commit", agent.stores.commit_id()}, {"user", session.user}});
    }
  }
  if (!result.ok()) session.candidate = kept;
  out.u64(record ? record->commit : 0);
  return result;
}

void tell_commits(const Agent& agent, Writer& out) {
  const std::deque<Version>& versions = agent.stores.versions;
  const size_t waiting = versions_waiting(versions);
  const int64_t left = waiting > 0 ? agent.stores.confirm_by - now_ms() : 0;
  out.u64(waiting > 0 ? versions[waiting].commit : 0);
  out.u64(static_cast<uint64_t>(std::max<int64_t>(left, 0) + 999) / 1000);
  const size_t count = std::min(versions.size(), kMaxRollback + 1);
  out.u32(static_cast<uint32_t>(count));
  for (size_t i = 1; i <= count; ++i) {
    const Version& version = versions[versions.size() - i];
    out.u64(version.commit);
    out.u64(static_cast<uint64_t>(version.note.time));
    out.text(version.note.user);
    out.text(version.note.client);
    out.text(version.note.comment);
  }
}

void tell_sessions(const Agent& agent, const Session& session, Writer& out) {
  out.u32(static_cast<uint32_t>(agent.sessions.size()));
  for (const auto& [id, note] : agent.sessions) {
    const bool locks = std::any_of(agent.locks.begin(), agent.locks.end(),
                                   [id = id](const auto& lock) { return lock.second == id; });
    out.u64(id);
    out.u64(static_cast<uint64_t>(note.since));
    out.text(note.user);
    out.text(note.context);
    out.text(note.client_id);
    out.text(note.source);
    uint32_t flags = note.has_edits ? MAAPI_SESSION_EDITS : 0;
    if (locks) flags |= MAAPI_SESSION_LOCKS;
    if (id == session.id) flags |= MAAPI_SESSION_OWN;
    out.u32(flags);
  }
}

Result roll_back(const Agent& agent, Session& session, unsigned back) {
  Result result = check_lock(agent, session, MAAPI_CANDIDATE);
  if (!result.ok()) return result;
  const NodeRef* root = datastore_version(agent.stores, back);
  if (root == nullptr) {
    return failed(YARROW_ERR_NOEXISTS,
                  "no configuration of " + std::to_string(back) + " commits ago");
  }
  session.candidate = {};
  set_candidate(agent, session, *root);
  return {};
}

Result lock(Agent& agent, const Session& session, int datastore) {
  if (datastore_root(agent.stores, datastore) == nullptr) {
    return failed(YARROW_ERR_PROTOCOL, "no such datastore");
  }
  auto [held, is_new] = agent.locks.emplace(datastore, session.id);
  if (is_new) return {};
  if (held->second == session.id) return failed(YARROW_ERR_ALREADY, "the lock is held already");
  return failed(YARROW_ERR_LOCKED, "another session holds the lock");
}

Result unlock(Agent& agent, const Session& session, int datastore) {
  auto held = agent.locks.find(datastore);
  if (held == agent.locks.end() || held->second != session.id) {
    return failed(YARROW_ERR_PROTOCOL, "the lock is not held");
  }
  agent.locks.erase(held);
  return {};
}

Result save(Agent& agent, const Session& session, const Transaction& trans, Reader& in,
            Writer& out) {
  uint32_t flags = in.u32();
  Path path;
  Result result = path_of(agent, in, &path);
  if (!result.ok()) return result;
  if (flags != YARROW_CONFIG_XML) return failed(YARROW_ERR_PROTOCOL, "no such format");
  if (!find_node(trans.root, path)) {
    return failed(YARROW_ERR_NOEXISTS, path_text(path) + ": no such node");
  }
  auto own = [&](const auto& stream) {
    return stream.second.owner == session.id && !stream.second.taken;
  };
  auto pending = std::count_if(agent.streams.begin(), agent.streams.end(), own);
  if (static_cast<size_t>(pending) >= kMaxStreamsEach) {
    // The oldest gives way: a reader that never came is not to end the session's saving.
    agent.streams.erase(std::find_if(agent.streams.begin(), agent.streams.end(), own));
    log_limit(agent, session, "too many streams: the oldest is given up");
  }
  SavedStream stream;
  stream.owner = session.id;
  stream.root = trans.root;
  stream.path = std::move(path);
  stream.deadline = now_ms() + kStreamWait;
  int id = agent.next_stream++;
  agent.streams.emplace(id, std::move(stream));
  out.u32(static_cast<uint32_t>(id));
  return {};
}

Result save_result(Agent& agent, const Session& session, int id) {
  auto at = agent.streams.find(id);
  if (at == agent.streams.end() || at->second.owner != session.id) {
    return failed(YARROW_ERR_NOEXISTS, "no such stream");
  }
  bool delivered = at->second.delivered;
  agent.streams.erase(at);
  return delivered ? Result{}
                   : failed(YARROW_ERR_NOTCONNECTED, "the stream was not read to its end");
}

Result load_begin(Agent& agent, const Session& session, Reader& in) {
  agent.loads.erase(session.id);
  Load load;
  load.trans = static_cast<int>(in.u32());
  load.flags = in.u32();
  load.touched = now_ms();
  constexpr uint32_t kKnown =
      YARROW_CONFIG_XML | YARROW_CONFIG_MERGE | YARROW_CONFIG_REPLACE | YARROW_CONFIG_SKIP_STATE;
  bool both = (load.flags & YARROW_CONFIG_MERGE) != 0 && (load.flags & YARROW_CONFIG_REPLACE) != 0;
  if ((load.flags & YARROW_CONFIG_XML) == 0 || (load.flags & ~kKnown) != 0 || both) {
    return failed(YARROW_ERR_PROTOCOL, "flags that do not go together");
  }
  Result result = path_of(agent, in, &load.path);
  if (result.ok()) agent.loads.emplace(session.id, std::move(load));
  return result;
}

// Whether there is room for `size` more bytes of unfinished loads, those given up that pause.
bool make_room(Agent& agent, uint64_t owner, size_t size) {
  auto total = [&] {
    size_t sum = size;
    for (const auto& [id, load] : agent.loads) sum += load.text.size();
    return sum;
  };
  if (total() <= kMaxLoading) return true;
  int64_t now = now_ms();
  std::erase_if(agent.loads, [&](const auto& load) {
    return load.first != owner && now - load.second.touched > kLoadPause;
  });
  return total() <= kMaxLoading;
}

Result load_data(Agent& agent, const Session& session, Reader& in) {
  std::string_view text = in.text(yarrow::kMaxFrame);
  auto at = agent.loads.find(session.id);
  if (at == agent.loads.end()) return failed(YARROW_ERR_PROTOCOL, "nothing is being loaded");
  Load& load = at->second;
  bool too_much = load.text.size() + text.size() > yarrow::kMaxLoadText;
  if (too_much || !make_room(agent, session.id, text.size())) {
    agent.loads.erase(session.id);
    return limit_reached(
        agent, session,
        too_much ? "too much text" : "other sessions load too much text at this moment");
  }
  load.text += text;
  load.touched = now_ms();
  return {};
}

Result load_end(Agent& agent, Session& session) {
  auto given = agent.loads.extract(session.id);
  if (given.empty()) return failed(YARROW_ERR_PROTOCOL, "nothing is being loaded");
  const Load& load = given.mapped();
  auto at = session.transactions.find(load.trans);
  if (at == session.transactions.end()) return failed(YARROW_ERR_PROTOCOL, "no such transaction");
  Transaction& trans = at->second;
  Editor editor{*agent.schema, trans.datastore == MAAPI_OPERATIONAL, &trans.root};
  return edit_load(editor, load.path, load.flags, load.text);
}

void describe_schema(const Schema& schema, uint32_t from, Writer& out) {
  out.u32(static_cast<uint32_t>(schema.all.size()));
  for (uint32_t id = from; id < schema.all.size() && out.size() < kSchemaChunk; ++id) {
    const SchemaNode& node = *schema.all[id];
    out.text(node.name);
    out.text(node.prefix);
    out.u32(node.tag);
    out.u32(node.ns_tag);
    out.u32(node.kind);
    out.u32(node.value_type);
    out.u32(node.key_count);
    out.u32(node.is_state ? 1 : 0);
    out.u32(node.parent != &schema.root ? node.parent->id + 1 : 0);
  }
}

Result answer_in_transaction(Agent& agent, Session& session, Request request, Reader& in,
                             Writer& out) {
  bool reads = request == Request::kExists || request == Request::kNumInstances ||
               request == Request::kGetText || request == Request::kSave ||
               request == Request::kValidate || request == Request::kFinishTrans;
  if (request == Request::kFinishTrans) {
    return session.transactions.erase(static_cast<int>(in.u32())) == 1
               ? Result{}
               : failed(YARROW_ERR_PROTOCOL, "no such transaction");
  }
  Result refusal;
  Transaction* trans = transaction_of(session, in, !reads, &refusal);
  if (trans == nullptr) return refusal;
  switch (request) {
    case Request::kExists:
    case Request::kNumInstances:
    case Request::kGetText:
      return answer_read(agent, trans->root, request, in, out);
    case Request::kSave:
      return save(agent, session, *trans, in, out);
    case Request::kValidate:
      return validate(agent, session, *trans);
    case Request::kApply:
      return apply(agent, session, *trans, in.u8() != 0);
    default:
      return answer_edit(agent, *trans, request, in);
  }
}

Result answer_maapi(Agent& agent, Session& session, Request request, Reader& in, Writer& out) {
  if (request == Request::kStartSession) return start_session(agent, session, in);
  if (!session.started) return no_session();
  switch (request) {
    case Request::kEndSession: {
      uint64_t id = session.id;
      session_end(agent, session);
      session = {};
      session.id = id;
      return {};
    }
    case Request::kStartTrans:
      return start_transaction(agent, session, in, out);
    case Request::kCommit: {
      CommitRef record;
      return commit(agent, session, note_of(session), &record);
    }
    case Request::kCommitNoted:
      return commit_noted(agent, session, in, out);
    case Request::kCommits:
      tell_commits(agent, out);
      return {};
    case Request::kSessions:
      tell_sessions(agent, session, out);
      return {};
    case Request::kCandidateValidate: {
      const NodeRef& root = candidate_root(agent, session);
      const Candidate& candidate = session.candidate;
      return datastore_validate(agent.stores, candidate.base ? candidate.base : root, root);
    }
    case Request::kCandidateReset:
      return roll_back(agent, session, 0);
    case Request::kRollback:
      return roll_back(agent, session, in.u32());
    case Request::kLock:
      return lock(agent, session, static_cast<int>(in.u32()));
    case Request::kUnlock:
      return unlock(agent, session, static_cast<int>(in.u32()));
    case Request::kSaveResult:
      return save_result(agent, session, static_cast<int>(in.u32()));
    case Request::kLoadBegin: {
      Reader ahead = in;
      Result refusal;
      bool good = transaction_of(session, ahead, true, &refusal) != nullptr;
      return good ? load_begin(agent, session, in) : refusal;
    }
    case Request::kLoadData:
      return load_data(agent, session, in);
    case Request::kLoadEnd:
      return load_end(agent, session);
    default:
      return answer_in_transaction(agent, session, request, in, out);
  }
}

Result start_cdb(Agent& agent, Session& session, Reader& in) {
  int datastore = datastore_of_cdb(static_cast<int>(in.u32()));
  uint32_t flags = in.u32();
  if (session.cdb_datastore != 0) return failed(YARROW_ERR_ALREADY, "the socket has its session");
  if (datastore == 0 || (flags & ~uint32_t{CDB_LOCK_SESSION | CDB_LOCK_WAIT}) != 0) {
    return failed(YARROW_ERR_PROTOCOL, "no such datastore or lock");
  }
  if ((flags & CDB_LOCK_SESSION) != 0) {
    Result result = lock(agent, session, datastore);
    if (!result.ok()) return result;
  }
  session.cdb_datastore = datastore;
  return {};
}

Result answer_cdb(Agent& agent, Session& session, Request request, Reader& in, Writer& out) {
  if (request == Request::kCdbStart) return start_cdb(agent, session, in);
  if (session.cdb_datastore == 0) return failed(YARROW_ERR_PROTOCOL, "no session");
  const NodeRef root = *datastore_root(agent.stores, session.cdb_datastore);
  switch (request) {
    case Request::kCdbEnd:
      session_end(agent, session);
      session.cdb_datastore = 0;
      return {};
    case Request::kExists:
    case Request::kNumInstances:
      return answer_read(agent, root, request, in, out);
    case Request::kDelete: {
      if (session.cdb_datastore != MAAPI_OPERATIONAL) {
        return failed(YARROW_ERR_ACCESS, "only operational data is written without a transaction");
      }
      Transaction trans{session.cdb_datastore, true, false, root, root};
      Result result = answer_edit(agent, trans, request, in);
      return result.ok() ? apply(agent, session, trans, false) : result;
    }
    default:
      return failed(YARROW_ERR_PROTOCOL, "not a request of this kind of socket");
  }
}

}  // namespace

Result session_answer(Agent& agent, Session& session, SocketKind kind, Request request, Reader& in,
                      Writer& out) {
  Result result;
  if (request == Request::kSchema) {
    describe_schema(*agent.schema, in.u32(), out);
  } else if (request == Request::kCommitId) {
    out.u64(agent.stores.commit_id());
  } else if (kind == SocketKind::kMaapi) {
    result = answer_maapi(agent, session, request, in, out);
    if (auto note = agent.sessions.find(session.id); note != agent.sessions.end()) {
      note->second.has_edits = session.candidate.base != nullptr;
    }
  } else {
    result = answer_cdb(agent, session, request, in, out);
  }
  if (result.ok() && !in.ok()) return failed(YARROW_ERR_PROTOCOL, "a request cut short");
  return result;
}

void session_end(Agent& agent, const Session& session) {
  std::erase_if(agent.locks, [&](const auto& held) { return held.second == session.id; });
  std::erase_if(agent.streams,
                [&](const auto& stream) { return stream.second.owner == session.id; });
  agent.loads.erase(session.id);
  agent.sessions.erase(session.id);
}

void session_take_back(Agent& agent) {
  CommitRef record;
  Result result = datastore_take_back(agent.stores, &record);
  if (!result.ok()) {
    service::log_burst(agent.refusals, service::LogLevel::kError,
                       "commits that were not confirmed cannot be taken back yet",
                       {{"commit", agent.stores.commit_id()}, {"reason", result.reason}});
    return;
  }
  service::log_line(service::LogLevel::kWarning, "commits that were not confirmed are taken back",
                    {{"commit", agent.stores.commit_id()},
                     {"comment", agent.stores.versions.back().note.comment}});
  if (record) agent.unpublished.push_back(record);
}

std::string stream_text(Agent& agent, int id) {
  auto at = agent.streams.find(id);
  if (at == agent.streams.end()) return {};
  const NodeRef root = std::move(at->second.root);
  return root ? xml_save(root, at->second.path) : std::string();
}

}  // namespace agent
