// SPDX-License-Identifier: Apache-2.0
// Every function undoes what it opened in reverse order: transaction, session, connection.
#include "policy/pol_show_data.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/pol_log.h"
#include "exchange/pol_agent_session_internal.h"
#include "exchange/pol_thread_wait.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "yarrow/yarrow_cdb.h"
#include "yarrow/yarrow_maapi.h"

const char* const pol_show_data_pol_from_pellux[POL_SHOW_DATA_PATHS] = {
    "/policy/from-pellux/app-id",
    "/policy/from-pellux/sla-class",
    "/policy/from-pellux/data-policy",
    "/policy/from-pellux/app-route-policy",
    "/policy/from-pellux/policer",
    "/policy/from-pellux/cflowd-template",
    "/policy/from-pellux/lists/vpn-list",
    "/policy/from-pellux/lists/data-prefix-list",
    "/policy/from-pellux/lists/data-ipv6-prefix-list",
    "/policy/from-pellux/lists/tloc-list",
    "/policy/from-pellux/lists/app-list",
};

namespace {

constexpr char kShowFile[] = "/etc/zenodra/show_fwd_pol_data.xml";
constexpr char kReceivedPolicy[] = "/policy-from-pellux";
constexpr int kMaxRetry = 30;

// A connection with the system's session, or -1. `starting` is the line between the two.
int open_session(const char* starting, const char* client_id) {
  int sock = pol::agent_connect(pol::kLogAlways);
  if (sock < 0) return -1;
  POL_LOG("%s", starting);
  if (pol::agent_start_session(sock, client_id, pol::kLogAlways)) return sock;
  maapi_close(sock);
  return -1;
}

void close_session(int sock) {
  maapi_end_user_session(sock);
  maapi_close(sock);
}

int start_writing(int sock, int datastore) {
  return maapi_start_trans_flags2(sock, datastore, MAAPI_READ_WRITE, 0, 0, nullptr, nullptr);
}

bool write_show_file(const char* xml) {
  FILE* file = fopen(kShowFile, "w+e");
  bool written = file != nullptr && fputs(xml, file) >= 0;
  if (file != nullptr && fclose(file) != 0) written = false;
  if (!written) POL_LOG("Cannot open/create XML file %sto save show policy data\n", kShowFile);
  return written;
}

bool publish(int sock, int trans, const char* xml) {
  POL_LOG("Creating XML show data in %s\n", kShowFile);
  if (!write_show_file(xml)) return false;
  int status = maapi_load_config(sock, trans, YARROW_CONFIG_XML | YARROW_CONFIG_MERGE, kShowFile);
  if (status < 0) {
    POL_LOG_ALWAYS("Failed to set xml show data, %dyarrow_str %s (%d) %s\n %s \n", status,
                   POL_AGENT_REASON, xml);
    return false;
  }
  if (maapi_apply_trans(sock, trans, 0) < 0) {
    POL_LOG_ALWAYS("Cannot apply maapi transaction: %s, %s\n", yarrow_strerror(yarrow_errno),
                   yarrow_lasterr());
    return false;
  }
  POL_LOG("Done setting XML show data in CDB\n");
  return true;
}

bool clear_show_data(int sock) {
  for (const char* path : pol_show_data_pol_from_pellux) {
    if (cdb_num_instances(sock, "%s", path) <= 0) continue;
    if (cdb_delete(sock, "%s", path) == YARROW_OK) continue;
    POL_LOG_ALWAYS("Failed to delete/clean %s, %s (%d) : %s\n", path, POL_AGENT_REASON);
    return false;
  }
  POL_LOG("pol_show_fwd_policy_yarrow_delete - Done deleting policy show data in CDB\n");
  return true;
}

bool apply_delete(int sock, int trans) {
  int retry = 0;
  for (;;) {
    int status = maapi_apply_trans(sock, trans, 1);
    if (status == YARROW_OK) return true;
    // On purpose: a positive result is no failure, and the agent is asked again at once.
    if (status > 0) continue;
    if (retry > kMaxRetry || yarrow_errno != YARROW_ERR_LOCKED) {
      POL_LOG_ALWAYS("Failed to apply transaction to yarrow, %d yarrow_str %s (%d) %s, retry %d\n",
                     status, POL_AGENT_REASON, retry);
      return false;
    }
    POL_LOG_AT(3, "Database is locked - Retrying\n");
    pol_thread_wait(nullptr, pol::kRetrySeconds);
    ++retry;
  }
}

bool delete_received(int sock, int trans) {
  POL_LOG("Initialising the config delete\n");
  int status = maapi_delete(sock, trans, "%s", kReceivedPolicy);
  if (status < 0) {
    POL_LOG_ALWAYS("Failed to delete config of path %s from yarrow, %dyarrow_str %s (%d) %s\n",
                   kReceivedPolicy, status, POL_AGENT_REASON);
    return false;
  }
  if (!apply_delete(sock, trans)) return false;
  status = maapi_candidate_commit(sock);
  if (status == YARROW_OK) return true;
  POL_LOG_ALWAYS("Failed to commit transaction to yarrow, %dyarrow_str %s (%d) %s\n", status,
                 POL_AGENT_REASON);
  return false;
}

}  // namespace

int32_t pol_fwd_policy_yarrow_set(int sock, int trans, uint32_t size, const char* xml) {
  if (xml == nullptr) return YARROW_ERR;
  POL_LOG("Initialising the load config %s\n", xml);
  constexpr unsigned kFlags = YARROW_CONFIG_XML | YARROW_CONFIG_REPLACE | YARROW_CONFIG_SKIP_STATE;
  int status = maapi_load_config_cmds(sock, trans, kFlags, xml, "%s", "");
  if (status >= 0) return 0;
  POL_LOG_ALWAYS("Failed to load config cmds, reason: %s (%d/%s)\n", POL_AGENT_REASON);
  POL_LOG_ALWAYS("Policy XML (%u bytes) %s\n", size, xml);
  return status;
}

uint32_t pol_show_fwd_policy_yarrow_set(const char* xml) {
  if (xml == nullptr) {
    POL_LOG("Failed to get XML data for show omp data-policy\n");
    return POL_EAGENT;
  }
  int sock = open_session("Starting user session\n", "kel-policy");
  if (sock < 0) return POL_EAGENT;
  POL_LOG("Starting transaction\n");
  int trans = start_writing(sock, MAAPI_OPERATIONAL);
  bool done = false;
  if (trans < 0) {
    POL_LOG_ALWAYS("Failed to start a transaction %d, yarrow_str %s (%d) %s\n", trans,
                   POL_AGENT_REASON);
  } else {
    done = publish(sock, trans, xml);
    maapi_finish_trans(sock, trans);
  }
  close_session(sock);
  return done ? POL_OK : POL_EAGENT;
}

uint32_t pol_show_fwd_policy_yarrow_delete() {
  POL_LOG("pol_show_fwd_policy_yarrow_delete - Connecting to CDB\n");
  int sock = pol::agent_socket();
  if (sock < 0) {
    POL_LOG("Could not allocate socket, errno: %d\n", errno);
    return POL_EAGENT;
  }
  sockaddr_in address = pol::agent_address();
  int status = cdb_connect(sock, CDB_DATA_SOCKET, reinterpret_cast<const sockaddr*>(&address),
                           sizeof address);
  if (status < 0) {
    POL_LOG_ALWAYS("Cannot connect to CDB (%d) %s (%d) : %s\n", status, POL_AGENT_REASON);
    close(sock);
    return POL_EAGENT;
  }
  POL_LOG("pol_show_fwd_policy_yarrow_delete - Starting session\n");
  bool done = false;
  if (cdb_start_session2(sock, CDB_OPERATIONAL, CDB_LOCK_SESSION | CDB_LOCK_WAIT) < 0) {
    POL_LOG_ALWAYS("Failed to start cdb session %s (%d) : %s\n", POL_AGENT_REASON);
  } else {
    done = clear_show_data(sock);
  }
  cdb_end_session(sock);
  cdb_close(sock);
  return done ? POL_OK : POL_EAGENT;
}

uint32_t pol_fwd_policy_yarrow_delete() {
  int sock = open_session("Starting user session for delete\n", nullptr);
  if (sock < 0) return POL_EAGENT;
  POL_LOG("Starting transaction for delete\n");
  int trans = start_writing(sock, MAAPI_CANDIDATE);
  bool done = false;
  if (trans < 0) {
    POL_LOG_ALWAYS("Failed to start a transaction %dyarrow_str %s (%d) %s\n", trans,
                   POL_AGENT_REASON);
  } else {
    done = delete_received(sock, trans);
    maapi_finish_trans(sock, trans);
  }
  close_session(sock);
  return done ? POL_OK : POL_EAGENT;
}
