// SPDX-License-Identifier: Apache-2.0
// Fetches an object's text from the agent into the cache. The agent saves it onto a stream of its
// own; nothing is locked until the whole text is there.
#include "exchange/pol_xml_fetch_internal.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>

#include "base/pol_log.h"
#include "base/pol_memory.h"
#include "exchange/pol_agent_session_internal.h"
#include "exchange/pol_xml_config_internal.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "yarrow/yarrow_maapi.h"

namespace pol {

namespace {
constexpr size_t kReceiveStep = 4096;
}

char* receive_text(int sock, const char* path, size_t* length) {
  auto* text = static_cast<char*>(pol_malloc(kReceiveStep, MEM_FETCH_XML));
  size_t room = kReceiveStep;
  size_t filled = 0;
  bool short_of = false;
  while (text != nullptr) {
    ssize_t got = recv(sock, text + filled, room - filled, MSG_WAITALL);
    // What came short was the stream's last, or waited the socket's time limit out: one that goes
    // on after that comes in drops, and could hold the caller for ever.
    if (got < 0 || (got > 0 && short_of)) {
      POL_LOG("Error fetching data from yarrow, path: %s\n", path);
      POL_LOG("Bailing out\n");
      pol_free(text, MEM_FETCH_XML);
      return nullptr;
    }
    if (got == 0) {
      text[filled] = '\0';  // there is room: a full buffer was grown
      *length = filled;
      return text;
    }
    POL_LOG("Received the %d bytes of data\n", static_cast<int>(got));
    filled += static_cast<size_t>(got);
    short_of = filled < room;
    if (short_of) continue;
    room += kReceiveStep;
    auto* grown = static_cast<char*>(pol_realloc(text, room));
    if (grown == nullptr) pol_free(text, MEM_FETCH_XML);
    text = grown;
  }
  POL_LOG("Failed to allocate memory for fwd policy, path: %s\n", path);
  return nullptr;
}

}  // namespace pol

namespace {

constexpr const char* kAgentPaths[POL_XML_TYPES] = {
    "",
    "/policy/data-policy",
    "/policy/app-route-policy",
    "/policy/cflowd-template",
    "/policy/lists/vpn-list",
    "/policy/lists/tloc-list",
    "/policy/lists/data-prefix-list",
    "/policy/lists/data-ipv6-prefix-list",
    "/policy/sla-class",
    "/policy/policer",
    "/policy/lists/app-list",
};

bool known(uint32_t type) { return type > 0 && type < POL_XML_TYPES; }

// A path that was cut could name another object, so it does not go to the agent.
bool make_path(char (&path)[256], uint32_t type, const char* name) {
  if (!known(type)) return false;
  char key[pol::kKeySize];
  pol::agent_key(key, name);
  if (snprintf(path, sizeof path, "%s{%s}", kAgentPaths[type], key) <
      static_cast<int>(sizeof path)) {
    return true;
  }
  POL_LOG("Failed to get config from yarrowyarrow_str %s (%d) %s, path: %s\n",
          yarrow_strerror(YARROW_ERR_TOOBIG), YARROW_ERR_TOOBIG, "", path);
  return false;
}

char* read_stream(int id, const char* path, size_t* length) {
  int sock = pol::agent_socket();
  if (sock < 0) {
    POL_LOG("Failed to initialise the sock, path: %s\n", path);
    return nullptr;
  }
  sockaddr_in address = pol::agent_address();
  char* text = nullptr;
  if (yarrow_stream_connect(sock, reinterpret_cast<const sockaddr*>(&address), sizeof address, id,
                            0) == YARROW_OK) {
    text = pol::receive_text(sock, path, length);
  } else {
    POL_LOG("Failed to connect yarrow_str %s (%d) %s, path: %s\n", POL_AGENT_REASON, path);
  }
  close(sock);
  return text;
}

char* save(int agent, int trans, const char* path, size_t* length) {
  int id = maapi_save_config(agent, trans, YARROW_CONFIG_XML, "%s", path);
  if (id < 0) {
    POL_LOG("Failed to get config from yarrowyarrow_str %s (%d) %s, path: %s\n", POL_AGENT_REASON,
            path);
    return nullptr;
  }
  char* text = read_stream(id, path, length);
  if (text == nullptr || maapi_save_config_result(agent, id) == YARROW_OK) return text;
  POL_LOG("Failed to retrieve policy config yarrow_str %s (%d) %s, path: %s\n", POL_AGENT_REASON,
          path);
  pol_free(text, pol::MEM_FETCH_XML);
  return nullptr;
}

bool cut(uint32_t type, std::string_view text, const char* path, std::string_view* part) {
  switch (pol::xml_cut(type, text, part)) {
    case pol::XML_CUT_NO_HEADER:
      POL_LOG("Failed to remove header, path: %s\n", path);
      return false;
    case pol::XML_CUT_NO_FOOTER:
      POL_LOG("Failed to remove footer, path: %s\n", path);
      return false;
    case pol::XML_CUT_DONE:
      break;
  }
  return true;
}

}  // namespace

pol::XmlCut pol::xml_cut(uint32_t type, std::string_view text, std::string_view* part) {
  if (!known(type)) return XML_CUT_NO_HEADER;
  text = text.substr(0, text.find('\0'));
  size_t start = text.find(pol_fwd_type2headerstr[type]);
  if (start == std::string_view::npos) return XML_CUT_NO_HEADER;
  size_t end = text.find(pol_fwd_type2footerstr[type], start);
  if (end == std::string_view::npos) return XML_CUT_NO_FOOTER;
  *part = text.substr(start, end - start);
  return XML_CUT_DONE;
}

bool pol::xml_fetch(t_pol_yarrow_thread* thread, uint32_t type, const char* name) {
  time_t start = time(nullptr);
  int agent = thread->agent_fd;
  int trans = maapi_start_trans_flags2(agent, MAAPI_RUNNING, MAAPI_READ, 0, 0, nullptr, nullptr);
  if (trans < 0) {
    POL_LOG("Failed to start a transaction %d, yarrow_str %s (%d) %s\n", trans, POL_AGENT_REASON);
    return false;
  }
  char path[256];
  if (!make_path(path, type, name)) {
    maapi_finish_trans(agent, trans);
    return true;  // no other try will make one
  }
  POL_LOG("Initializing the save config path: %s\n", path);
  size_t length = 0;
  char* text = save(agent, trans, path, &length);
  maapi_finish_trans(agent, trans);
  if (text == nullptr) return false;
  std::string_view part;
  bool done = cut(type, {text, length}, path, &part) &&
              xml_config_store(thread->ctx, static_cast<int32_t>(type), name, part, start);
  pol_free(text, MEM_FETCH_XML);
  return done;
}
