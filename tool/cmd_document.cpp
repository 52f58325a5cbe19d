// SPDX-License-Identifier: Apache-2.0
//
// polctl document. Also what becomes of the document in the agent when it is published for show.
#include <fmt/format.h>

#include "commands.h"
#include "host/address_text.h"
#include "host/agent_link.h"
#include "host/input_error.h"
#include "live_client.h"
#include "policy/pol_show_data.h"
#include "tloc_reader.h"
#include "yarrow/yarrow_cdb.h"

namespace polctl {

namespace {

// The instances that the agent shows, a line a path that has any.
void print_shown(Output* out) {
  int sock = agent_socket();
  // Where this process's connections go is settled by set_worker_port.
  sockaddr_in address = agent_address(YARROW_PORT);
  auto* to = reinterpret_cast<const sockaddr*>(&address);
  bool good = cdb_connect(sock, CDB_DATA_SOCKET, to, sizeof address) == YARROW_OK &&
              cdb_start_session2(sock, CDB_OPERATIONAL, 0) == YARROW_OK;
  bool any = false;
  for (const char* path : pol_show_data_pol_from_pellux) {
    int count = good ? cdb_num_instances(sock, "%s", path) : -1;
    if (count < 0) good = false;
    if (count > 0) out->print("  {} {}\n", count, path);
    any = any || count > 0;
  }
  std::string problem = good ? "" : agent_problem();
  cdb_close(sock);
  if (!good) throw InputError(fmt::format("agent: error: {} (expected its show data)", problem));
  if (!any) out->write("  nothing\n");
}

void publish_and_clear(const ForwardingManager& manager, Output* out) {
  if (pol_show_fwd_policy_yarrow_set(manager.show_data().c_str()) != POL_OK) {
    throw InputError(
        "polctl: error: the show data are not published (expected an agent, and a directory "
        "/etc/zenodra that can be written to)");
  }
  out->write("published, the agent shows\n");
  print_shown(out);
  if (pol_show_fwd_policy_yarrow_delete() != POL_OK) {
    throw InputError("polctl: error: the show data are not cleared");
  }
  out->write("cleared, it shows\n");
  print_shown(out);
}

}  // namespace

int answer_document(const DocumentOptions& options, const ForwardingManager& manager, Output* out) {
  if (options.show_data) {
    publish_and_clear(manager, out);
    return kDone;
  }
  std::string text = manager.document();
  if (options.pretty) text = pretty_xml(text);
  if (text.back() != '\n') text += '\n';
  out->write(text);
  return kDone;
}

int run_document(DocumentOptions options, Output* out) {
  if (!options.source.live.empty()) return ask_live(options.source.live, {options}, out);
  if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
  options.source.worker = true;
  PolicySource source = load_policy(options.source);
  ForwardingManager manager(applied_or_only(options.applied, source_name(options.source)),
                            *source.configured());
  source.settle(PolicySource::Settling::kTexts);
  int status = answer_document(options, manager, out);
  out->flush();
  return status;
}

}  // namespace polctl
