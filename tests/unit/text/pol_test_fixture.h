// SPDX-License-Identifier: Apache-2.0
//
// pol_test_fixture.h - a context for tests of the text policy file, and files to feed it.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/policy_fixture.h"

// A file of the given content, gone with the object.
class TextFile {
 public:
  explicit TextFile(const std::string& content) {
    int fd = mkstemp(path_);
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
  }
  ~TextFile() { unlink(path_); }
  TextFile(const TextFile&) = delete;
  TextFile& operator=(const TextFile&) = delete;
  const char* path() const { return path_; }

 private:
  char path_[32] = "/tmp/pol_test_XXXXXX";
};

class TextPolicyTest : public PolicyTest {
 protected:
  static void parse(const std::string& content, t_pol_test_site_policy site_policy = nullptr) {
    TextFile file(content);
    EXPECT_EQ(pol_test_parse_file(file.path(), site_policy), 0);
  }

  t_pol_block* policy(const char* name, uint32_t kind = POL_KIND_ROUTE) const {
    return pol_block_find(ctx, name, kind, nullptr);
  }
  t_pol_entry* sequence(const char* policy_name, uint32_t number) const {
    return pol_entry_find(ctx, policy(policy_name), number, nullptr);
  }

  // The names of the lists that there are, by family.
  std::string lists() const {
    std::string names;
    auto add = [&names](const auto& tree) {
      for (auto* list = tree.first(); list != nullptr; list = tree.next(list)) {
        names += std::string(list->head.name) + " ";
      }
    };
    add(ctx->site_lists);
    add(ctx->vpn_lists);
    add(ctx->tloc_lists);
    add(ctx->pfx_lists);
    return names;
  }
};
