// SPDX-License-Identifier: Apache-2.0
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "yarrow/yarrow_cli.h"

int maapi_cli_printf(t_cli_user_ctx* cli, const char* format, ...) {
  if (cli == nullptr || cli->write == nullptr) return -1;
  char line[512];
  va_list args;
  va_start(args, format);
  int length = vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (length < 0) return -1;
  if (static_cast<size_t>(length) < sizeof line) {
    return cli->write(cli->arg, line, static_cast<size_t>(length)) == 0 ? length : -1;
  }
  size_t size = static_cast<size_t>(length) + 1;
  char* text = static_cast<char*>(malloc(size));
  if (text == nullptr) return -1;
  va_start(args, format);
  vsnprintf(text, size, format, args);
  va_end(args);
  int status = cli->write(cli->arg, text, static_cast<size_t>(length));
  free(text);
  return status == 0 ? length : -1;
}
