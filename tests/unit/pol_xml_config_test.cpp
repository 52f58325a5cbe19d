// SPDX-License-Identifier: Apache-2.0
#include "pol_xml_config_internal.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

class XmlConfigTest : public PolicyTest {
 protected:
  static void store(t_pol_xml_config* config, const char* text) {
    config->size = static_cast<uint32_t>(strlen(text));
    config->text = static_cast<char*>(pol_malloc(config->size + 1, 10));
    memcpy(config->text, text, config->size + 1);
  }
};

TEST_F(XmlConfigTest, RecordsOrderByTypeThenName) {
  store(pol_xml_config_find_or_create(5, "a"), "<tloc-list>");
  pol_xml_config_find_or_create(4, "b");
  pol_xml_config_find_or_create(4, "a");
  t_pol_xml_config* long_name = pol_xml_config_find_or_create(1, std::string(200, 'n').c_str());
  EXPECT_EQ(strlen(long_name->name), 127u);
  EXPECT_EQ(pol_xml_config_find_or_create(1, std::string(127, 'n').c_str()), long_name);
  std::string text =
      printed([](t_cli_user_ctx* cli) { pol_dump_xml_config_all(cli, 0, 0, nullptr); });
  EXPECT_NE(text.find("nn, Type: 1, Size: 0\nXML: \nName: a, Type: 4, Size: 0\nXML: \n"
                      "Name: b, Type: 4, Size: 0\nXML: \nName: a, Type: 5, Size: 11\n"
                      "XML: <tloc-list>\n"),
            std::string::npos)
      << text;
  t_pol_xml_config* kept = pol_xml_config_find_or_create(5, "a");
  EXPECT_STREQ(kept->text, "<tloc-list>") << "made again, it keeps its text";
  pol_xml_config_find_and_delete(5, "a");
  pol_xml_config_find_and_delete(5, "a");
  EXPECT_EQ(current(10), 0u);
}

TEST_F(XmlConfigTest, TextIsAppendedAndUnknownObjectsAddNothing) {
  store(pol_xml_config_find_or_create(4, "v"), "<vpn-list>");
  char* buffer = static_cast<char*>(pol_calloc(1, 13, 6));
  uint32_t room = 12;
  EXPECT_EQ(pol_xml_config_get_str(4, "v", &buffer, &room), POL_OK);
  EXPECT_STREQ(buffer, "<vpn-list>");
  EXPECT_EQ(room, 2u);
  EXPECT_EQ(pol_xml_config_get_str(4, "w", &buffer, &room), POL_OK);
  EXPECT_EQ(room, 2u);
  EXPECT_EQ(pol_xml_config_get_str(4, "v", &buffer, &room), POL_OK);
  EXPECT_STREQ(buffer, "<vpn-list><vpn-list>");
  EXPECT_EQ(room, 0u) << "a grown buffer has no room left";
  {
    seams::FailFrom none(1);
    EXPECT_EQ(pol_xml_config_get_str(4, "v", &buffer, &room), POL_ENOMEM);
  }
  EXPECT_STREQ(buffer, "<vpn-list><vpn-list>");
  auto log = seams::take_log();
  ASSERT_FALSE(log.empty());
  EXPECT_NE(log.back().find("[POL] Could not append policy (error:0)\n"), std::string::npos);
  pol_free(buffer, 6);
}

TEST_F(XmlConfigTest, NamedListsComeAndGoWithTheirRecord) {
  const uint64_t before = current(8);
  pol_vpn_list_add_entry(ctx, "v", 1, 1);
  pol_debug_set(3);
  seams::take_log();
  pol_vpn_list_cfg_del(ctx, "v");
  pol_debug_set(0);
  auto log = seams::take_log();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_NE(log[0].find("[POL] Delete xml config entry for policy v of type 4\n"),
            std::string::npos);
  EXPECT_EQ(current(8), before);
}

}  // namespace
