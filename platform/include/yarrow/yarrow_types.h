/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_types.h - operations, errors and connections of the management agent's client.
 *
 * A process talks to the agent over stream sockets that it makes itself and hands to one of the
 * connect calls (maapi_connect, cdb_connect, yarrow_stream_connect, yarrow_sub_connect); each
 * socket then serves that one purpose until it is closed.
 *
 * Results  YARROW_OK (0) or a positive value where a call says so; YARROW_ERR (-1) on failure, with
 *          yarrow_errno and yarrow_lasterr() telling why.
 * Paths    printf-like; keys in braces, several keys separated by a blank:
 * "/policy/lists/site-list{A}", "tloc{10.0.0.1 mpls ipsec}". A key that holds a blank, a brace, a
 * quote or a backslash stands in double quotes, `"` and `\` in it escaped by `\`. Text beyond 4095
 * bytes is an error. Threads  a socket serves one thread at a time; different sockets are
 * independent. yarrow_errno and yarrow_lasterr() belong to the calling thread.
 */
#ifndef YARROW_TYPES_H
#define YARROW_TYPES_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>

#include "yarrow/yarrow_values.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define YARROW_PRINTF(at, first) __attribute__((format(printf, at, first)))
#else
#define YARROW_PRINTF(at, first)
#endif

/* Where the agent listens unless told otherwise: a port of the loopback address, and a Unix socket. */
#define YARROW_PORT 3010
#define YARROW_PATH "/run/yarrow/agent.sock"

/* Environment variables that every connect call looks at, except in a program that runs with more
 * rights than its user:
 * - the path of the Unix socket to take instead of the usual address (127.0.0.1, port YARROW_PORT);
 * - the port to take instead of any address's, so that several agents can run side by side;
 * - the id of a user whose agent is trusted, beside root's and one of the process's own user;
 * - the time limit of a call, in seconds, 1 to 3600.
 *
 * A call for the usual address goes to the path that is named, else to the port that is named, else
 * to YARROW_PATH if an agent listens there, else to the address. To reach a Unix socket, the
 * descriptor that was handed in is made to name a socket of that kind: it keeps its number and
 * whether it closes on exec and blocks, and loses other options and what polls it through epoll. */
#define YARROW_PATH_VARIABLE "YARROW_IPC_PATH"
#define YARROW_PORT_VARIABLE "YARROW_IPC_PORT"
#define YARROW_UID_VARIABLE "YARROW_IPC_UID"
#define YARROW_TIMEOUT_VARIABLE "YARROW_IPC_TIMEOUT"

/* Seconds that one call waits for the agent. A connect call sets them as the socket's receive and
 * send time limits (SO_RCVTIMEO, SO_SNDTIMEO), where its user may change them; 0: for ever. */
#define YARROW_TIMEOUT 60

#define YARROW_OK 0
#define YARROW_ERR (-1)
#define YARROW_EOF (-2) /* the agent closed the connection in good order */

/* Why a call failed. Numbers are stable: callers store and compare them. */
typedef enum t_yarrow_error {
  YARROW_ERR_NONE = 0,
  YARROW_ERR_NOEXISTS = 1, /* no such node: an absent entry or leaf, or a parent that is absent */
  YARROW_ERR_ALREADY =
      2, /* the entry exists, or the session, transaction or lock is already held */
  YARROW_ERR_BADPATH = 3,  /* the schema knows no such path, or the keys do not fit it */
  YARROW_ERR_BADVALUE = 4, /* a value that its leaf's type refuses */
  YARROW_ERR_INVALID = 5,  /* validation refused the configuration; lasterr names every reason */
  YARROW_ERR_PROTOCOL = 6, /* a call out of order, a bad handle, or an answer that makes no sense */
  YARROW_ERR_MALFORMED = 7, /* text that cannot be parsed; lasterr names the lines */
  YARROW_ERR_ACCESS = 8,    /* refused: peer of another uid, read-only transaction, state data */
  YARROW_ERR_OS = 9,        /* a system call failed; lasterr holds its text */
  YARROW_ERR_LOCKED = 10,   /* another session holds the lock */
  YARROW_ERR_TOOBIG = 11,   /* a text, a path or an answer beyond the agent's limits */
  YARROW_ERR_NOTCONNECTED = 12, /* not connected, or the agent has gone */
  YARROW_ERR_TIMEOUT = 13       /* the agent did not answer in time; the socket is of no more use */
} t_yarrow_error;

/* The reason of the calling thread's last failed call; calls that succeed leave it as it is. */
#define yarrow_errno (*yarrow_errno_location())
int* yarrow_errno_location(void);

/* A constant text for an error number; "unknown error" for any other. */
const char* yarrow_strerror(int error);

/* What the agent said about the calling thread's last failed call, one reason a line; "" when it
 * said nothing. Valid until the thread's next call. */
const char* yarrow_lasterr(void);

/* Operations of change iteration. */
typedef enum t_yarrow_op {
  YARROW_CREATED = 1, /* the entry is new: all its leaves that have a value follow */
  YARROW_DELETED = 2, /* the entry is gone with all that it held; no values follow */
  YARROW_MODIFIED =
      3, /* the entry or something in it changed; its own changed leaves follow, if any */
  YARROW_VALUE_SET = 4 /* a leaf that belongs to no list entry was set or removed */
} t_yarrow_op;

#ifdef __cplusplus
}
#endif
#endif
