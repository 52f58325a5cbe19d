/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_cli.h - printing to a command-line session of the management agent.
 *
 * A command callback is given the session that asked and prints to it. A host that shows dumps
 * elsewhere (a terminal, a string, a socket) fills the record itself.
 */
#ifndef YARROW_CLI_H
#define YARROW_CLI_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct t_cli_user_ctx {
  /* Takes `length` bytes of text; not NUL-terminated. Returns 0, or -1 when the session is gone. */
  int (*write)(void* arg, const char* text, size_t length);
  void* arg;
} t_cli_user_ctx;

/* Prints like printf, text of any length. Returns the bytes written, or -1 (no session, a bad
 * format or a session that is gone). */
#if defined(__GNUC__)
__attribute__((format(printf, 2, 3)))
#endif
int maapi_cli_printf(t_cli_user_ctx* cli, const char* format, ...);

#ifdef __cplusplus
}
#endif
#endif
