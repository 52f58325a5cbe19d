/* SPDX-License-Identifier: Apache-2.0
 *
 * A program of the agent's client library alone, at an address where no agent listens. */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <yarrow/yarrow_cdb.h>
#include <yarrow/yarrow_changes.h>
#include <yarrow/yarrow_cli.h>
#include <yarrow/yarrow_maapi.h>
#include <yarrow/yarrow_schema.h>

int main(void) {
  struct sockaddr_in address;
  int status;
  int sock = socket(AF_INET, SOCK_STREAM, 0);
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(1);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  status = yarrow_sub_connect(sock, (const struct sockaddr*)&address, sizeof address, "/policy", 0);
  close(sock);
  if (status == YARROW_ERR && yarrow_errno == YARROW_ERR_OS && *yarrow_lasterr() != '\0') return 0;
  fprintf(stderr, "%d %s: %s\n", status, yarrow_strerror(yarrow_errno), yarrow_lasterr());
  return 1;
}
