// SPDX-License-Identifier: Apache-2.0
// Lines of the text policy file that fill and delete lists.
#include "base/pol_log.h"
#include "kel/tloc.h"
#include "policy/pol_pfx_list.h"
#include "policy/pol_site_list.h"
#include "policy/pol_tloc_list.h"
#include "policy/pol_vpn_list.h"
#include "text/pol_test_grammar.h"

namespace {

enum class Command { kNone, kAdd, kDelete, kDeleteList };

struct ListLine {
  Command command;
  const char* name;
  const char* element;  // as text
};

// None without a context.
ListLine read_list_line(pol::TextList list, t_pol_test_tokens tokens, uint32_t count) {
  ListLine line = {Command::kNone, "", ""};
  if (g_pol_ctx_p == nullptr || tokens == nullptr) return line;
  const pol::TextWords words = pol::text_words(tokens, count);
  pol::TextWalk walk(words, pol::text_list_line(list));
  pol::TextStep step;
  while (walk.next(&step)) {
    if (step.row->op == pol::TextOp::kList) {
      line.name = words.at(step.value);
      if (step.deletes) line.command = Command::kDeleteList;
    } else {
      line.element = words.at(step.value);
      line.command = step.deletes ? Command::kDelete : Command::kAdd;
    }
  }
  return line;
}

}  // namespace

void pol_test_parse_site_list(t_pol_test_tokens tokens, uint32_t count) {
  const ListLine line = read_list_line(pol::TextList::kSite, tokens, count);
  const auto site = static_cast<uint32_t>(pol::text_number(line.element));
  switch (line.command) {
    case Command::kNone:
      return;
    case Command::kAdd:
      POL_LOG_AT(4, "Adding prefix list %s site: %d\n", line.name, static_cast<int>(site));
      pol_site_list_add_entry(g_pol_ctx_p, line.name, site, site);
      return;
    case Command::kDelete:
      POL_LOG_AT(4, "Deleting prefix list %s site: %d\n", line.name, static_cast<int>(site));
      pol_site_list_del_entry(g_pol_ctx_p, line.name, site, site);
      return;
    case Command::kDeleteList:
      POL_LOG_AT(4, "Deleting prefix list %s\n", line.name);
      pol_site_list_cfg_del(g_pol_ctx_p, line.name);
      return;
  }
}

void pol_test_parse_vpn_list(t_pol_test_tokens tokens) {
  const ListLine line = read_list_line(pol::TextList::kVpn, tokens, POL_TEST_TOKENS);
  const auto vpn = static_cast<uint32_t>(pol::text_number(line.element));
  switch (line.command) {
    case Command::kNone:
      return;
    case Command::kAdd:
      POL_LOG_AT(4, "Adding vpn list %s vpn: %d\n", line.name, static_cast<int>(vpn));
      pol_vpn_list_add_entry(g_pol_ctx_p, line.name, vpn, vpn);
      return;
    case Command::kDelete:
      POL_LOG_AT(4, "Deleting vpn list %s vpn: %d\n", line.name, static_cast<int>(vpn));
      pol_vpn_list_del_entry(g_pol_ctx_p, line.name, vpn, vpn);
      return;
    case Command::kDeleteList:
      POL_LOG_AT(4, "Deleting vpn list %s\n", line.name);
      pol_vpn_list_cfg_del(g_pol_ctx_p, line.name);
      return;
  }
}

void pol_test_parse_tloc_list(t_pol_test_tokens tokens, uint32_t count) {
  const ListLine line = read_list_line(pol::TextList::kTloc, tokens, count);
  t_tloc_id tloc = {};
  pol_test_tloc_str_to_tloc(line.element, &tloc);
  switch (line.command) {
    case Command::kNone:
      return;
    case Command::kAdd:
      POL_LOG_AT(4, "Adding tloc list %s entry: %s\n", line.name,
                 tloc_id_print(&tloc, g_polbuf1, sizeof g_polbuf1));
      pol_tloc_list_add_entry(g_pol_ctx_p, line.name, &tloc, 0);
      return;
    case Command::kDelete:
      POL_LOG_AT(4, "Deleting tloc list %s entry: %s\n", line.name,
                 tloc_id_print(&tloc, g_polbuf1, sizeof g_polbuf1));
      pol_tloc_list_del_entry(g_pol_ctx_p, line.name, &tloc);
      return;
    case Command::kDeleteList:
      POL_LOG_AT(4, "Deleting tloc list %s\n", line.name);
      pol_tloc_list_cfg_del(g_pol_ctx_p, line.name);
      return;
  }
}

void pol_test_parse_pfx_list(t_pol_test_tokens tokens, uint32_t count) {
  const ListLine line = read_list_line(pol::TextList::kPfx, tokens, count);
  // On purpose: the operator stays 0, which compares like EQ and prints as "UNKNOWN".
  t_pol_pfx_record record = {};
  pol_test_pfx_str_to_pfx(line.element, &record.prefix);
  switch (line.command) {
    case Command::kNone:
      return;
    case Command::kAdd:
      pol_pfx_list_entry_add(g_pol_ctx_p, line.name, &record);
      return;
    case Command::kDelete:
      pol_pfx_list_del_entry(g_pol_ctx_p, line.name, &record);
      return;
    case Command::kDeleteList:
      pol_pfx_list_cfg_del(g_pol_ctx_p, line.name);
      return;
  }
}
