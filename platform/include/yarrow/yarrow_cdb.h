/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_cdb.h - direct sessions on one datastore of the management agent, without
 * transactions.
 *
 * Each call takes effect at once. Meant for operational data; running and candidate can be read but
 * not written this way.
 */
#ifndef YARROW_CDB_H
#define YARROW_CDB_H

#include "yarrow/yarrow_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What a socket is for. */
typedef enum t_cdb_sock_type { CDB_DATA_SOCKET = 2 } t_cdb_sock_type;

/* Datastores by this interface's numbers, which are not those of maapi. */
typedef enum t_cdb_datastore {
  CDB_RUNNING = 1,
  CDB_CANDIDATE = 2,
  CDB_OPERATIONAL = 3
} t_cdb_datastore;

/* Lock flags of a session. */
enum {
  CDB_LOCK_SESSION = 0x1, /* no other session writes the datastore while this one lasts */
  CDB_LOCK_WAIT = 0x4     /* wait for a held lock, at most 10 seconds, instead of failing at once */
};

/* Connects a fresh stream socket; `type` is CDB_DATA_SOCKET. */
int cdb_connect(int sock, int type, const struct sockaddr* addr, socklen_t addr_len);

/* Closes the socket, ending its session. */
int cdb_close(int sock);

/* One session a socket. A lock that is held elsewhere is YARROW_ERR_LOCKED. */
int cdb_start_session2(int sock, int datastore, unsigned lock_flags);
int cdb_end_session(int sock);

/* Entries of a list, by a path without its last keys: 0 or more. */
int cdb_num_instances(int sock, const char* format, ...) YARROW_PRINTF(2, 3);

/* Deletes a node with all that it holds; a list without keys loses all its entries. */
int cdb_delete(int sock, const char* format, ...) YARROW_PRINTF(2, 3);

/* Whether a node exists: 1 or 0. */
int cdb_exists(int sock, const char* format, ...) YARROW_PRINTF(2, 3);

#ifdef __cplusplus
}
#endif
#endif
