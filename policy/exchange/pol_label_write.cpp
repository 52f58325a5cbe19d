// SPDX-License-Identifier: Apache-2.0
// The labels of a sequence, written into the data policy that the agent keeps: the old TLOCs go,
// the new ones and the VPN's label come, in one transaction that is committed at once.
#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/pol_log.h"
#include "exchange/pol_agent_session_internal.h"
#include "exchange/pol_thread_wait.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "yarrow/yarrow_maapi.h"

namespace {

constexpr int kMaxApplies = 31;

// The transaction that a label set is written in.
struct Edit {
  int sock;
  int trans;
  char set[512];  // the path of the sequence's set container
};

using Path = char[512];

// A path that was cut could name more than one label's node, so none of it goes to the agent.
bool set_path(Edit* edit, const t_pol_label_set& labels) {
  char policy[pol::kKeySize];
  char vpn_list[pol::kKeySize];
  pol::agent_key(policy, labels.policy);
  pol::agent_key(vpn_list, labels.vpn_list);
  int length = snprintf(edit->set, sizeof edit->set,
                        "/policy/data-policy{%s}/vpn-list{%s}/sequence{%d}/action/set", policy,
                        vpn_list, static_cast<int>(labels.sequence));
  constexpr int kRoom = sizeof "/kel-tloc-pref-list{63}";
  if (length <= static_cast<int>(sizeof edit->set) - kRoom) return true;
  POL_LOG("tloc-list %s delete failed - %s(%d)-%s\n", edit->set, yarrow_strerror(YARROW_ERR_TOOBIG),
          YARROW_ERR_TOOBIG, "");
  return false;
}

void tloc_path(Path& path, const Edit& edit, int position) {
  size_t length = strlen(edit.set);
  memcpy(path, edit.set, length);
  snprintf(path + length, sizeof path - length, "/kel-tloc-pref-list{%d}", position);
}

bool delete_tlocs(const Edit& edit) {
  for (int i = 0; i < POL_MAX_TLOC; ++i) {
    Path path;
    tloc_path(path, edit, i);
    if (maapi_delete(edit.sock, edit.trans, "%s", path) == YARROW_OK) continue;
    if (yarrow_errno == YARROW_ERR_NOEXISTS) return true;
    POL_LOG("tloc-list %s delete failed - %s(%d)-%s\n", path, POL_AGENT_REASON);
    return false;
  }
  return true;
}

t_yarrow_value value_of(uint32_t type) {
  t_yarrow_value value = {};
  value.type = type;
  return value;
}

t_yarrow_value uint32_value(uint32_t number) {
  t_yarrow_value value = value_of(C_UINT32);
  value.val.u32 = number;
  return value;
}

t_yarrow_value enum_value(uint32_t number) {
  t_yarrow_value value = value_of(C_ENUM_VALUE);
  value.val.enumvalue = number;
  return value;
}

t_yarrow_value address_value(const t_tloc_id& tloc) {
  t_yarrow_value value = value_of(C_NOEXISTS);
  if (tloc.family == KEL_AF_INET) {
    value.type = C_IPV4;
    value.val.ip = htonl(tloc.addr.v4);
  } else if (tloc.family == KEL_AF_INET6) {
    value.type = C_IPV6;
    memcpy(value.val.ip6, tloc.addr.v6, sizeof value.val.ip6);
  }
  return value;
}

bool write_tlocs(const Edit& edit, const t_pol_label_set& labels) {
  const auto count = static_cast<int>(std::min<uint32_t>(labels.count, POL_MAX_TLOC));
  for (int i = 0; i < count; ++i) {
    const t_pol_label_tloc& entry = labels.tlocs[i];
    t_yarrow_value index = value_of(C_UINT8);
    index.val.u8 = static_cast<uint8_t>(i);
    // A TLOC that was asked for without an encapsulation has none.
    const t_yarrow_value values[] = {
        index,
        address_value(entry.tloc),
        enum_value(entry.tloc.color),
        entry.tloc.encap != 0 ? enum_value(entry.tloc.encap) : value_of(C_NOEXISTS),
        uint32_value(entry.label),
    };
    Path path;
    tloc_path(path, edit, i);
    POL_LOG("setting internal tloc-list %s\n", path);
    if (maapi_set_object(edit.sock, edit.trans, values, sizeof values / sizeof *values, "%s",
                         path) != YARROW_OK) {
      POL_LOG("tloc-list %s create failed - %s(%d)-%s\n", path, POL_AGENT_REASON);
      return false;
    }
  }
  return true;
}

// One that was never written need not go.
bool delete_label(const Edit& edit) {
  if (maapi_delete(edit.sock, edit.trans, "%s/vpn-label", edit.set) == YARROW_OK) return true;
  if (yarrow_errno == YARROW_ERR_NOEXISTS) return true;
  POL_LOG("vpn-label %s/vpn-label delete failed - %s(%d)-%s\n", edit.set, POL_AGENT_REASON);
  return false;
}

bool write_label(const Edit& edit, uint32_t label) {
  POL_LOG("setting vpn-label to %d\n", static_cast<int>(label));
  t_yarrow_value value = uint32_value(label);
  int status = maapi_set_elem(edit.sock, edit.trans, &value, "%s/vpn-label", edit.set);
  if (status == YARROW_OK) return true;
  POL_LOG("Failed to set label to yarrow, %dyarrow_str %s (%d) %s\n\n", status, POL_AGENT_REASON);
  return false;
}

bool apply(t_pol_yarrow_thread* thread, const Edit& edit) {
  for (int applies = 1;; ++applies) {
    int status = maapi_apply_trans(edit.sock, edit.trans, 1);
    if (status >= 0) return true;
    if (yarrow_errno != YARROW_ERR_LOCKED || applies >= kMaxApplies) {
      POL_LOG("Failed to apply transaction to yarrow, %dyarrow_str %s (%d) %s\n", status,
              POL_AGENT_REASON);
      return false;
    }
    POL_LOG_AT(3, "Database is locked - Retrying\n");
    if (!pol_thread_wait(thread, pol::kRetrySeconds)) return false;
  }
}

bool commit(const Edit& edit) {
  int status = maapi_candidate_commit(edit.sock);
  if (status == YARROW_OK) return true;
  POL_LOG("Failed to commit transaction to yarrow, %dyarrow_str %s (%d) %s\n", status,
          POL_AGENT_REASON);
  return false;
}

}  // namespace

bool pol::label_write(t_pol_yarrow_thread* thread, const t_pol_label_set& labels) {
  POL_LOG("Starting transaction for label set\n");
  Edit edit = {thread->agent_fd, -1, ""};
  edit.trans = maapi_start_trans_flags2(edit.sock, MAAPI_CANDIDATE, MAAPI_READ_WRITE, 0, 0, nullptr,
                                        nullptr);
  if (edit.trans < 0) {
    POL_LOG("Failed to start a transaction %d, yarrow_str %s (%d) %s\n", edit.trans,
            POL_AGENT_REASON);
    return false;
  }
  bool written = set_path(&edit, labels) && delete_tlocs(edit) && delete_label(edit) &&
                 write_tlocs(edit, labels) && write_label(edit, labels.vpn_label) &&
                 apply(thread, edit) && commit(edit);
  if (!written) {
    maapi_finish_trans(edit.sock, edit.trans);
    return false;
  }
  int status = maapi_finish_trans(edit.sock, edit.trans);
  if (status != YARROW_OK) {
    POL_LOG("Failed to finish transaction to yarrow, %dyarrow_str %s (%d) %s\n", status,
            POL_AGENT_REASON);
    return false;
  }
  POL_LOG("Successfully applied label to data policy\n");
  return true;
}
