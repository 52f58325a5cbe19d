// SPDX-License-Identifier: Apache-2.0
//
// pol_test_fixture.h - a context for tests of the text policy file, and files to feed it.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "support/policy_fixture.h"

// A file of the given content, gone with the object.
class TextFile {
 public:
  explicit TextFile(const std::string& content) {
    int fd = mkstemp(path_);
    EXPECT_GE(fd, 0);
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
  void SetUp() override {
    PolicyTest::SetUp();
    for (size_t i = 0; i < POL_MEM_TYPES; ++i) before_[i] = current(i);
  }
  // Objects of a type that the test has made.
  uint64_t made(size_t type) const { return current(type) - before_[type]; }

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
  t_site_list* site_list(const char* name) const { return pol::named_find(ctx->site_lists, name); }
  t_vpn_list* vpn_list(const char* name) const { return pol::named_find(ctx->vpn_lists, name); }
  t_pfx_list* pfx_list(const char* name) const { return pol::named_find(ctx->pfx_lists, name); }

 private:
  uint64_t before_[POL_MEM_TYPES] = {};
};
