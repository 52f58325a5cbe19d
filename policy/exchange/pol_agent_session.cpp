// SPDX-License-Identifier: Apache-2.0
#include "exchange/pol_agent_session_internal.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "base/pol_log.h"
#include "yarrow/yarrow_maapi.h"

namespace pol {

sockaddr_in agent_address() {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(YARROW_PORT);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int agent_socket() { return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0); }

int agent_connect(int32_t level) {
  int sock = agent_socket();
  if (sock < 0) {
    POL_LOG("Failed to do get new socket (%d)\n", sock);
    return -1;
  }
  sockaddr_in address = agent_address();
  int status = maapi_connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (status == YARROW_OK) return sock;
  POL_LOG_AT(level, "Failed to do maapi_connect (%d)yarrow_str %s (%d) %s\n", status,
             POL_AGENT_REASON);
  close(sock);
  return -1;
}

bool agent_start_session(int sock, const char* client_id, int32_t level) {
  sockaddr_in source = agent_address();
  source.sin_port = 0;
  if (maapi_start_user_session3(sock, "system", "NORVIK YANG Infrastructure",
                                reinterpret_cast<const sockaddr*>(&source),
                                client_id) == YARROW_OK) {
    return true;
  }
  POL_LOG_AT(level, "Failed to start a user sessionyarrow_str %s (%d) %s\n", POL_AGENT_REASON);
  return false;
}

void agent_key(char (&key)[kKeySize], const char* name) {
  if (*name != '\0' && strpbrk(name, " {}\"\\") == nullptr) {
    size_t length = strnlen(name, kKeySize - 1);
    memcpy(key, name, length);
    key[length] = '\0';
    return;
  }
  char* out = key;
  char* const last = key + kKeySize - 2;  // of the closing quote
  *out++ = '"';
  for (; *name != '\0' && out + 2 <= last; ++name) {
    if (*name == '"' || *name == '\\') *out++ = '\\';
    *out++ = *name;
  }
  *out++ = '"';
  *out = '\0';
}

}  // namespace pol
