// SPDX-License-Identifier: Apache-2.0
//
// What one connection holds, and the answering of its requests.
#ifndef AGENT_SESSION_H
#define AGENT_SESSION_H

#include <deque>
#include <map>
#include <string>

#include "agent/clock.h"
#include "agent/datastore.h"
#include "platform/service/log.h"
#include "platform/yarrow/wire.h"

namespace agent {

struct Transaction {
  int datastore = 0;
  bool writable = false;
  bool ended = false;  // applied for good
  NodeRef base;        // the datastore as the transaction found it
  NodeRef root;        // the same with the transaction's edits
};

// What a session has applied and not committed.
struct Candidate {
  NodeRef base;  // running as the edits found it; null: there are none
  NodeRef root;  // the same with the edits
};

// Text on its way to the agent.
struct Load {
  int trans = 0;
  uint32_t flags = 0;
  Path path;
  std::string text;
  int64_t touched = 0;  // when the last of it came, in milliseconds of the steady clock
};

struct Session {
  uint64_t id = 0;  // of the connection
  bool started = false;
  std::string user, context, client_id, source;  // for the system log
  std::map<int, Transaction> transactions;
  int next_transaction = 1;
  Candidate candidate;
  int cdb_datastore = 0;  // 0: no session
};

// A subtree that waits for the reader of its text.
struct SavedStream {
  uint64_t owner = 0;  // connection
  NodeRef root;
  Path path;
  bool taken = false;
  bool delivered = false;
  int64_t deadline = 0;  // milliseconds of the steady clock
};

// A session as others are told of it.
struct SessionNote {
  std::string user, context, client_id, source;
  int64_t since = 0;  // seconds of the wall clock
  bool has_edits = false;
};

struct Agent {
  std::unique_ptr<Schema> schema;
  Datastores stores;
  std::map<int, uint64_t> locks;             // datastore to connection
  std::map<uint64_t, Load> loads;            // unfinished, by connection
  std::map<uint64_t, SessionNote> sessions;  // by connection
  std::map<int, SavedStream> streams;
  int next_stream = 1;
  std::deque<CommitRef> unpublished;  // commits that subscribers are still to be told
  service::LogBurst refusals, limits;
};

// Answers one request; what is written to `out` after success is the answer's content.
Result session_answer(Agent& agent, Session& session, yarrow::SocketKind kind,
                      yarrow::Request request, yarrow::Reader& in, yarrow::Writer& out);

// Lets go of all that a closing connection held.
void session_end(Agent& agent, const Session& session);

// Takes back what was to be confirmed by now. Fails, and is to be tried again, when that cannot be
// written.
void session_take_back(Agent& agent);

// The text of a stream, for its reader; it is made once.
std::string stream_text(Agent& agent, int id);

}  // namespace agent
#endif
