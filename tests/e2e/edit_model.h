// SPDX-License-Identifier: Apache-2.0
//
// Random edits of the policy tree, drawn from the agent's schema.
#ifndef TESTS_E2E_EDIT_MODEL_H
#define TESTS_E2E_EDIT_MODEL_H

#include <cstdint>
#include <random>
#include <string>

#include "yarrow/yarrow_schema.h"

namespace test {

class Editor {
 public:
  // REQUIRES: the schema is loaded.
  Editor(int sock, uint32_t seed) : sock_(sock), random_(seed) {}

  // Makes a few edits in one transaction and applies them to the candidate. An edit that cannot be
  // made (an absent entry deleted, say) is passed over.
  void edit(uint32_t count);

  uint32_t below(uint32_t limit) { return limit == 0 ? 0 : random_() % limit; }

 private:
  void edit_list(const t_yarrow_cs_node* list, const std::string& parent);
  void fill(const t_yarrow_cs_node* node, const std::string& path, uint32_t percent);
  void edit_in(const t_yarrow_cs_node* node, const std::string& path);
  void set(const t_yarrow_cs_node* leaf, const std::string& parent);
  void remove(const std::string& path);
  std::string entry_path(const t_yarrow_cs_node* list, const std::string& parent);
  std::string text_for(const t_yarrow_cs_node* leaf);

  int sock_;
  int trans_ = 0;
  std::mt19937 random_;
};

}  // namespace test
#endif
