// SPDX-License-Identifier: Apache-2.0
#include "policy_model.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "policy/pol_context.h"

namespace polctl {

struct ModelReader {
  Model* model;
  std::map<const void*, const ListModel*> by_id;

  const ListModel* find(const void* id) const {
    auto found = by_id.find(id);
    return found != by_id.end() ? found->second : nullptr;
  }

  // Called by the library: running out of memory ends the process here rather than pass through it.
  static void list(void* arg, uint32_t type, const void* id, const char* name) noexcept {
    auto* reader = static_cast<ModelReader*>(arg);
    reader->model->lists_.push_back({type, name, {}});
    reader->by_id[id] = &reader->model->lists_.back();
  }
  static void element(void* arg, const t_pol_content_element* element) noexcept {
    static_cast<ModelReader*>(arg)->model->lists_.back().elements.push_back(*element);
  }
  static void policy(void* arg, uint32_t kind, const char* name) noexcept {
    static_cast<ModelReader*>(arg)->model->policies_.push_back({name, kind, {}});
  }
  static void sequence(void* arg, const t_pol_content_sequence* given) noexcept {
    auto* reader = static_cast<ModelReader*>(arg);
    SequenceModel to;
    to.is = *given;
    to.site_list = reader->find(given->site_list);
    to.vpn_list = reader->find(given->vpn_list);
    to.tloc_list = reader->find(given->tloc_list);
    to.color_list = reader->find(given->color_list);
    to.pfx_list = reader->find(given->pfx_list);
    to.set_vpn_list = reader->find(given->set_vpn_list);
    to.set_tloc_list = reader->find(given->set_tloc_list);
    reader->model->policies_.back().sequences.push_back(to);
  }
};

bool ListModel::same_content(const ListModel& other) const {
  // Elements come zeroed, padding and all.
  return type == other.type && elements.size() == other.elements.size() &&
         (elements.empty() || memcmp(elements.data(), other.elements.data(),
                                     elements.size() * sizeof elements[0]) == 0);
}

void Model::read() {
  policies_.clear();
  lists_.clear();
  ModelReader reader = {this, {}};
  t_pol_content_visitor visitor = {ModelReader::list, ModelReader::element, ModelReader::policy,
                                   ModelReader::sequence, &reader};
  pol_content_walk(g_pol_ctx_p, &visitor);
}

const PolicyModel* Model::policy(const std::string& name, uint32_t kind) const {
  auto found = std::find_if(policies_.begin(), policies_.end(), [&](const PolicyModel& each) {
    return each.kind == kind && each.name == name;
  });
  return found != policies_.end() ? &*found : nullptr;
}

const ListModel* Model::list(const std::string& name, uint32_t type) const {
  auto found = std::find_if(lists_.begin(), lists_.end(), [&](const ListModel& each) {
    return each.type == type && each.name == name;
  });
  return found != lists_.end() ? &*found : nullptr;
}

std::string decider_text(const SequenceModel& sequence) {
  return sequence.is_default() ? "the default action"
                               : fmt::format("sequence {}", sequence.is.sequence);
}

}  // namespace polctl
