// SPDX-License-Identifier: Apache-2.0
#include <sstream>

#include "pol_test_fixture.h"
#include "support/golden.h"

namespace {

// Each finding as a line "line:column E what | expected".
std::string check(const std::string& content) {
  TextFile file(content);
  std::string findings;
  int count = pol_test_check_file(
      file.path(),
      [](const t_pol_test_finding* finding, void* arg) {
        auto& text = *static_cast<std::string*>(arg);
        text += "=> " + std::to_string(finding->line) + ":" + std::to_string(finding->column);
        text += finding->severity == POL_TEST_ERROR ? " E " : " W ";
        text += finding->what;
        if (finding->expected != nullptr) text += std::string(" | ") + finding->expected;
        text += "\n";
      },
      &findings);
  EXPECT_EQ(count, std::count(findings.begin(), findings.end(), '\n'));
  return findings;
}

// \t, \r and \xNN; a backslash at a line's end takes its newline away.
std::string unescaped(const std::string& text) {
  std::string plain;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      plain += text[i];
    } else if (text[++i] == 'x') {
      plain += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else if (text[i] != '\n') {
      plain += text[i] == 't' ? '\t' : '\r';
    }
  }
  return plain;
}

// Files of good and bad lines, some of them cut where the parser would cut them.
TEST(TextCheck, FindingsMatchTheirGolden) {
  std::string all;
  for_each_part("check/findings.in", [&all](const std::string& part) {
    all += (all.empty() ? "" : "\n") + part + check(unescaped(part));
  });
  expect_golden("check/findings.ok", all);
}

TEST(TextCheck, NeedsAndTouchesNoContext) {
  ASSERT_EQ(g_pol_ctx_p, nullptr);
  EXPECT_EQ(check(""), "");
  t_pol_callbacks callbacks = {};
  t_pol_ctx* ctx = pol_init(&callbacks);
  EXPECT_EQ(check("site-list s 1\n"), "");
  EXPECT_EQ(ctx->site_lists.first(), nullptr);
  pol_destroy();
  for (const char* path : {"/nonexistent", "/", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(pol_test_check_file(path, nullptr, nullptr), -1);
  }
}

}  // namespace
