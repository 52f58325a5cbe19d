// SPDX-License-Identifier: Apache-2.0
//
// polctl labels: what the library's worker wrote into the agent's data policies.
#include <fmt/format.h>
#include <libxml/parser.h>

#include <memory>
#include <string_view>

#include "commands.h"
#include "host/input_error.h"
#include "json_line.h"
#include "live_client.h"
#include "terminal.h"
#include "tloc_reader.h"

namespace polctl {

namespace {

std::string_view name_of(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

const xmlNode* child(const xmlNode* node, std::string_view name) {
  if (node == nullptr) return nullptr;
  const xmlNode* found = node->children;
  while (found != nullptr && (found->type != XML_ELEMENT_NODE || name_of(found) != name)) {
    found = found->next;
  }
  return found;
}

// Calls visit(child) for each child element of that name.
template <typename Visit>
void each_child(const xmlNode* node, std::string_view name, Visit visit) {
  if (node == nullptr) return;
  for (const xmlNode* at = node->children; at != nullptr; at = at->next) {
    if (at->type == XML_ELEMENT_NODE && name_of(at) == name) visit(at);
  }
}

std::string leaf(const xmlNode* node, std::string_view name) {
  const xmlNode* found = child(node, name);
  if (found == nullptr || found->children == nullptr) return "";
  const xmlChar* text = found->children->content;
  return text != nullptr ? reinterpret_cast<const char*>(text) : "";
}

class Labels {
 public:
  Labels(bool json, Output* out)
      : json_(json),
        out_(*out),
        palette_(out->fd()),
        table_("llrrl", {{"data policy"}, {"vpn-list"}, {"sequence"}, {"vpn-label"}, {"tlocs"}}) {}

  void read(const xmlNode* policies) {
    each_child(policies, "data-policy", [&](const xmlNode* policy) {
      each_child(policy, "vpn-list", [&](const xmlNode* vpn_list) {
        each_child(vpn_list, "sequence", [&](const xmlNode* sequence) {
          add(leaf(policy, "name"), leaf(vpn_list, "name"), sequence);
        });
      });
    });
  }

  void finish() {
    if (json_) return;
    if (any_) {
      table_.print(&out_, palette_);
    } else {
      out_.write("no labels\n");
    }
  }

 private:
  void add(const std::string& policy, const std::string& vpn_list, const xmlNode* sequence) {
    const xmlNode* set = child(child(sequence, "action"), "set");
    std::string vpn_label = leaf(set, "vpn-label");
    std::vector<std::string> words;
    std::vector<std::string> objects;
    each_child(set, "kel-tloc-pref-list", [&](const xmlNode* tloc) {
      std::string address = leaf(tloc, "address");
      std::string color = leaf(tloc, "color");
      std::string encap = leaf(tloc, "encap");
      std::string label = leaf(tloc, "label");
      words.push_back(fmt::format("{} {}{}{} label {}", address, color, encap.empty() ? "" : " ",
                                  encap, label));
      objects.push_back(fmt::format(R"({{"address":{},"color":{},"encap":{},"label":{}}})",
                                    json_string(address), json_string(color), json_string(encap),
                                    label.empty() ? std::string(1, '0') : label));
    });
    if (words.empty() && (vpn_label.empty() || vpn_label == "0")) return;
    any_ = true;
    if (vpn_label.empty()) vpn_label.assign(1, '0');
    std::string number = leaf(sequence, "number");
    if (json_) {
      out_.print(R"({{"policy":{},"vpn-list":{},"sequence":{},"vpn-label":{},"tlocs":[{}]}})",
                 json_string(policy), json_string(vpn_list), number, vpn_label,
                 joined(objects, ","));
      out_.write("\n");
      return;
    }
    table_.add({{policy}, {vpn_list}, {number}, {vpn_label}, {joined(words, ", ")}});
  }

  bool json_;
  Output& out_;
  Palette palette_;
  Table table_;
  bool any_ = false;
};

}  // namespace

int answer_labels(const LabelsOptions& options, ConfigSession* session, Output* out) {
  std::string text = session->save("/policy/data-policy");
  Labels labels(options.json, out);
  if (!text.empty()) {
    std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> document(
        xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                      XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE),
        xmlFreeDoc);
    if (!document) throw InputError("agent: error: its configuration is no XML");
    labels.read(child(xmlDocGetRootElement(document.get()), "policy"));
  }
  labels.finish();
  return kDone;
}

int run_labels(LabelsOptions options, Output* out) {
  if (!options.source.live.empty()) return ask_live(options.source.live, {options}, out);
  int status = kDone;
  if (options.source.agent) {
    ConfigSession session(running_agent_port(options.source.agent_port));
    status = answer_labels(options, &session, out);
  } else {
    if (!options.tlocs.empty()) load_resolvable_tlocs(options.tlocs);
    options.source.worker = true;
    PolicySource source = load_policy(options.source);
    source.settle(PolicySource::Settling::kLabels);
    status = answer_labels(options, source.live()->session.get(), out);
  }
  out->flush();
  return status;
}

}  // namespace polctl
