// SPDX-License-Identifier: Apache-2.0
// Any bytes as what an agent sends: to the calls that read one answer, to a subscriber, and as a
// schema. The first byte says to whom.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "platform/yarrow/schema.h"
#include "support/agent_schema.h"
#include "yarrow/yarrow_changes.h"
#include "yarrow/yarrow_maapi.h"

namespace {

constexpr size_t kMost = 64u << 10;  // fits into the socket's buffer

// Reads all that a batch points to, as its readers would.
void touch(const t_yarrow_value& value) {
  if (value.type == C_BUF) {
    if (value.val.buf.ptr[value.val.buf.size] != 0) abort();
    if (memchr(value.val.buf.ptr, 1, value.val.buf.size) == value.val.buf.ptr - 1) abort();
  } else if (value.type == C_LIST) {
    for (uint32_t i = 0; i < value.val.list.size; ++i) touch(value.val.list.ptr[i]);
  } else if ((value.type == C_IPV4PREFIX && value.val.ipv4prefix.len > 32) ||
             (value.type == C_IPV6PREFIX && value.val.ipv6prefix.len > 128)) {
    abort();
  }
}

int on_change(const t_yarrow_change* change, void* /*state*/) {
  if (strlen(change->path) > 4095) abort();
  for (uint32_t i = 0; i < change->key_count; ++i) touch(change->keys[i]);
  for (uint32_t i = 0; i < change->value_count; ++i) touch(change->values[i].v);
  return 0;
}

void subscribe(int sock) {
  t_yarrow_batch* batch = nullptr;
  while (yarrow_sub_read(sock, -1, &batch) == 1) {
    yarrow_batch_iterate(batch, on_change, nullptr);
    yarrow_batch_free(batch);
  }
}

void read_schema(int sock) {
  yarrow::LoadedSchema schema;
  if (yarrow::fetch_schema(sock, schema) != YARROW_OK) return;
  for (const t_yarrow_cs_node& node : schema.nodes) {
    size_t depth = 0;
    for (const t_yarrow_cs_node* up = &node; up != nullptr; up = up->parent) {
      if (++depth > schema.nodes.size()) abort();
    }
  }
}

void ask(int sock) {
  char text[128];
  maapi_commit_id(sock);
  maapi_start_trans_flags2(sock, MAAPI_RUNNING, MAAPI_READ, 0, 0, nullptr, nullptr);
  if (maapi_get_elem_text(sock, 1, text, sizeof text, "/policy") >= 0) {
    if (strnlen(text, sizeof text) == sizeof text) abort();
  }
  maapi_candidate_commit(sock);
  for (const char* at = yarrow_lasterr(); *at != '\0'; ++at) {
    if (*at == '\x1b') abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool loaded = load_agent_schema();
  int ends[2];
  if (!loaded || size == 0 || size > kMost || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) {
    return 0;
  }
  if (send(ends[1], data + 1, size - 1, MSG_DONTWAIT) != static_cast<ssize_t>(size - 1)) abort();
  shutdown(ends[1], SHUT_WR);
  if (data[0] == 's') subscribe(ends[0]);
  if (data[0] == 'n') read_schema(ends[0]);
  if (data[0] == 'a') ask(ends[0]);
  close(ends[0]);
  close(ends[1]);
  return 0;
}
