/* SPDX-License-Identifier: Apache-2.0
 *
 * policy_model.h - what the library holds of route and membership policies and of their lists, read off
 * it once, to be reasoned about when it holds something else.
 */
#ifndef TOOL_PROOF_POLICY_MODEL_H
#define TOOL_PROOF_POLICY_MODEL_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "policy/pol_content.h"
#include "policy/pol_graph.h"

namespace polctl {

struct ListModel {
  uint32_t type = 0; /* enum pol_graph_type */
  std::string name;
  std::vector<t_pol_content_element> elements;

  /* The same elements in the same order, whatever the names. */
  bool same_content(const ListModel& other) const;
};

struct SequenceModel {
  t_pol_content_sequence is = {}; /* its lists are below; null: named, and not there */
  const ListModel* site_list = nullptr;
  const ListModel* vpn_list = nullptr;
  const ListModel* tloc_list = nullptr;
  const ListModel* color_list = nullptr;
  const ListModel* pfx_list = nullptr;
  const ListModel* set_vpn_list = nullptr;
  const ListModel* set_tloc_list = nullptr;

  bool is_default() const { return is.is_default != 0; }
};

struct PolicyModel {
  std::string name;
  uint32_t kind = 0;
  std::vector<SequenceModel> sequences; /* ascending; the default action last */
};

/* The model's parts point at each other: it stays where it is. */
class Model {
 public:
  Model() = default;
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  /* Reads the process's context. */
  void read();

  /* Null when there is none. */
  const PolicyModel* policy(const std::string& name, uint32_t kind) const;
  const ListModel* list(const std::string& name, uint32_t type) const;
  const std::deque<PolicyModel>& policies() const { return policies_; }
  const std::deque<ListModel>& lists() const { return lists_; }

 private:
  friend struct ModelReader;
  std::deque<PolicyModel> policies_;
  std::deque<ListModel> lists_;
};

/* "sequence 10", or "the default action". */
std::string decider_text(const SequenceModel& sequence);

}  // namespace polctl

#endif
