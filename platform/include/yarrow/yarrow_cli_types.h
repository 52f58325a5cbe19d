/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_cli_types.h - a command-line session of the management agent.
 *
 * A command callback is given the session that asked and prints to it. A host that shows dumps
 * elsewhere (a terminal, a string, a socket) fills the record itself.
 */
#ifndef YARROW_CLI_TYPES_H
#define YARROW_CLI_TYPES_H

#include <stddef.h>

typedef struct t_cli_user_ctx {
  /* Takes `length` bytes of text; not NUL-terminated. Returns 0, or -1 when the session is gone. */
  int (*write)(void* arg, const char* text, size_t length);
  void* arg;
} t_cli_user_ctx;

#endif
