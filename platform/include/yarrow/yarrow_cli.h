/* SPDX-License-Identifier: Apache-2.0
 *
 * yarrow/yarrow_cli.h - printing to a command-line session of the management agent.
 */
#ifndef YARROW_CLI_H
#define YARROW_CLI_H

#include "yarrow/yarrow_cli_types.h"

#ifdef __cplusplus
extern "C" {
#endif

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
