/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_maapi.h - configuration sessions and transactions of the management agent.
 *
 * Order of use: maapi_connect, maapi_start_user_session3, maapi_start_trans_flags2, then reads and
 * edits of the transaction, maapi_apply_trans to write the edits into the transaction's datastore,
 * maapi_candidate_commit to make the candidate the running configuration, maapi_finish_trans,
 * maapi_end_user_session, maapi_close. Closing the socket, or the death of the process, ends all of
 * it: unapplied edits are dropped and locks are let go.
 *
 * A candidate is private to its session: running, as it is at each moment, with what the session
 * applied. A commit takes that alone; it is gone once the session or its connection ends.
 *
 * A transaction sees its datastore as it was when it started, plus its own edits. Two transactions
 * on one datastore do not see one another; edits of both survive unless they touch the same node,
 * where the later apply or commit wins. An edit below an entry that was deleted meanwhile is refused
 * with YARROW_ERR_INVALID and the entry's path.
 */
#ifndef YARROW_MAAPI_H
#define YARROW_MAAPI_H

#include <stddef.h>

#include "yarrow/yarrow_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Datastores. */
typedef enum t_maapi_datastore {
  MAAPI_CANDIDATE = 1,  /* what the session's next commit makes running */
  MAAPI_RUNNING = 2,    /* survives restarts; a write transaction commits as it is applied */
  MAAPI_OPERATIONAL = 4 /* state data; empty when the agent starts */
} t_maapi_datastore;

typedef enum t_maapi_mode { MAAPI_READ = 1, MAAPI_READ_WRITE = 2 } t_maapi_mode;

/* Flags of load and save, combined by "or". */
enum {
  YARROW_CONFIG_XML = 0x1,    /* the one format there is; always needed */
  YARROW_CONFIG_MERGE = 0x40, /* load: into what is there */
  YARROW_CONFIG_REPLACE =
      0x400, /* load: each top-level node named in the text replaces what is there */
  YARROW_CONFIG_SKIP_STATE =
      0x4000 /* load: state data in the text is passed over instead of refused */
};

/* Connects a fresh stream socket to the agent at `addr`. */
int maapi_connect(int sock, const struct sockaddr* addr, socklen_t addr_len);

/* Closes the socket. */
int maapi_close(int sock);

/* Names who acts on this socket; one session a socket. The agent writes these names beside each
 * commit into the system log: `context` says which part of the system asks, `source` is where its
 * user came from (null: this host), `client_id` identifies the program (null: none). Each text
 * counts with its first 127 bytes. */
int maapi_start_user_session3(int sock, const char* user, const char* context,
                              const struct sockaddr* source, const char* client_id);
int maapi_end_user_session(int sock);

/* Starts a transaction of the socket's session and returns its handle, 1 or more; at most 16 a
 * socket. The last four arguments are reserved: 0 or null. */
int maapi_start_trans_flags2(int sock, int datastore, int mode, int user_session, unsigned flags,
                             const char* label, const char* client_id);

/* Ends a transaction; edits not applied are dropped. */
int maapi_finish_trans(int sock, int trans);

/* Whether a node exists: 1 or 0. A container exists once anything in it does. */
int maapi_exists(int sock, int trans, const char* format, ...) YARROW_PRINTF(3, 4);

/* Entries of the list at a path given without its last keys: 0 or more. */
int maapi_num_instances(int sock, int trans, const char* format, ...) YARROW_PRINTF(3, 4);

/* Reads a leaf into `text`, NUL-terminated, in its canonical form; returns its length. A leaf
 * without a value gives its default; without one YARROW_ERR_NOEXISTS. Text of `size` or more bytes
 * is YARROW_ERR_TOOBIG. */
int maapi_get_elem_text(int sock, int trans, char* text, size_t size, const char* format, ...)
    YARROW_PRINTF(5, 6);

/* Sets a leaf. Containers on the way come to be; a list entry on the way that is absent is
 * YARROW_ERR_NOEXISTS. A C_LIST sets a whole leaf-list; any other value adds to it. */
int maapi_set_elem(int sock, int trans, const t_yarrow_value* value, const char* format, ...)
    YARROW_PRINTF(4, 5);

/* The same from text as a user would type it. */
int maapi_set_elem_text(int sock, int trans, const char* text, const char* format, ...)
    YARROW_PRINTF(4, 5);

/* Creates a list entry; YARROW_ERR_ALREADY if it exists. */
int maapi_create(int sock, int trans, const char* format, ...) YARROW_PRINTF(3, 4);

/* Sets an entry whole: `values` are the first `count` leaves of the entry in schema order, its keys
 * included (and equal to those of the path); C_NOEXISTS leaves one out. Makes the entry unless it
 * exists; leaves beyond `count` stay. */
int maapi_set_object(int sock, int trans, const t_yarrow_value* values, int count,
                     const char* format, ...) YARROW_PRINTF(5, 6);

/* Deletes a node with all that it holds. An absent entry or leaf is YARROW_ERR_NOEXISTS; a
 * container, a whole list and a leaf with a default are never absent. */
int maapi_delete(int sock, int trans, const char* format, ...) YARROW_PRINTF(3, 4);

/* Checks the transaction as an apply to running would; YARROW_ERR_INVALID with all reasons. */
int maapi_validate_trans(int sock, int trans);

/* Writes the edits into the transaction's datastore; the transaction goes on if `keep_open` is not
 * 0, and ends for further edits otherwise (it still wants maapi_finish_trans). Another session's
 * lock is YARROW_ERR_LOCKED: nothing is written, and the same call may be made again. */
int maapi_apply_trans(int sock, int trans, int keep_open);

/* Brings the candidate's edits into the running configuration, all or nothing: checked, written to
 * disk, then told to the subscribers. Refused, it leaves running as it is and drops the edits, so
 * that the session starts afresh; YARROW_ERR_LOCKED alone keeps them, and the same call may be made
 * again. */
int maapi_candidate_commit(int sock);

/* A commit as an operator makes it. It is noted with a comment of at most 1000 bytes (null: none). With
 * `minutes`, at most 10080, it is taken back unless it is confirmed before they are over, whatever
 * becomes of this session or of the agent's process; with 0 it confirms all that wait, also when
 * there is nothing to commit. Refused, it leaves the candidate's edits. Returns the commit's number, 0
 * if nothing changed. Commits made otherwise neither confirm nor are taken back with what they follow,
 * unless that goes only together. */
int64_t maapi_candidate_commit_noted(int sock, const char* comment, unsigned minutes);

/* A commit that rollback reaches, and who made it. Texts live for the call only. */
typedef struct t_maapi_commit {
  int64_t number;
  int64_t time; /* seconds since 1970; 0: not known */
  const char* user;
  const char* client_id;
  const char* comment;
} t_maapi_commit;

/* Calls `visit` for the commits, the latest first, the last being what rollback reaches furthest back,
 * until it returns other than 0. `waiting` takes the number of the first that waits to be confirmed (0:
 * none), `seconds` the time that it has left; both may be null. */
typedef int (*maapi_visit_commit)(const t_maapi_commit* commit, void* state);
int maapi_commits(int sock, maapi_visit_commit visit, void* state, int64_t* waiting,
                  int64_t* seconds);

enum {
  MAAPI_SESSION_EDITS = 0x1, /* its candidate is not running */
  MAAPI_SESSION_LOCKS = 0x2, /* it holds a lock */
  MAAPI_SESSION_OWN = 0x4    /* the caller's */
};

/* A user session of the agent. Texts live for the call only. */
typedef struct t_maapi_session {
  int64_t id;
  int64_t since; /* seconds since 1970 */
  const char* user;
  const char* context;
  const char* client_id;
  const char* source;
  uint32_t flags; /* MAAPI_SESSION_* */
} t_maapi_session;

/* Calls `visit` for each session, the oldest first, until it returns other than 0. */
typedef int (*maapi_visit_session)(const t_maapi_session* session, void* state);
int maapi_sessions(int sock, maapi_visit_session visit, void* state);

/* Checks the candidate as a commit would, without one. */
int maapi_candidate_validate(int sock);

/* Discards the candidate's edits. */
int maapi_candidate_reset(int sock);

/* Puts running as it was `back` commits ago (1: before the last; at most 50) into the candidate; a
 * commit then makes it running. YARROW_ERR_NOEXISTS if so many are not kept. */
int maapi_load_rollback(int sock, unsigned back);

/* The number of the last commit: 0 in an agent that never had one, one more with each commit that
 * changed anything, across restarts. Negative on failure. */
int64_t maapi_commit_id(int sock);

/* Locks a datastore for this socket until unlock, close or death. */
int maapi_lock(int sock, int datastore);
int maapi_unlock(int sock, int datastore);

/* Starts to save the subtree at the path ("/" is everything) and returns the id of the stream that
 * will carry it, 1 or more: XML in one line, without white space between elements. A list entry
 * comes in its ancestors, with the keys of each. Nothing at the path is YARROW_ERR_NOEXISTS. */
int maapi_save_config(int sock, int trans, unsigned flags, const char* format, ...)
    YARROW_PRINTF(4, 5);

/* Connects a fresh stream socket to the stream `id`; `flags` 0. The text can be read to its end
 * with recv; then the agent closes. The stream waits 60 seconds for its reader. */
int yarrow_stream_connect(int sock, const struct sockaddr* addr, socklen_t addr_len, int id,
                          int flags);

/* Whether stream `id` was delivered whole. To be called once, after its end was read. */
int maapi_save_config_result(int sock, int id);

/* Loads a file into the transaction. Text that is refused changes nothing; lasterr names every
 * reason with its line and path. Elements may carry the operations of RFC 6241, section 7.2. What
 * stands twice is refused. Without MERGE and REPLACE the text becomes all that the datastore
 * holds. */
int maapi_load_config(int sock, int trans, unsigned flags, const char* file_name);

/* Loads text likewise. The path names the node that the text goes below; "" is the root. */
int maapi_load_config_cmds(int sock, int trans, unsigned flags, const char* text,
                           const char* format, ...) YARROW_PRINTF(5, 6);

#ifdef __cplusplus
}
#endif
#endif
