// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "exchange/pol_xml_config_internal.h"
#include "exchange/pol_xml_fetch_internal.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

namespace {

class XmlConfigTest : public PolicyTest {
 protected:
  static void store(t_pol_xml_config* config, const char* text) {
    config->size = static_cast<uint32_t>(strlen(text));
    config->text = static_cast<char*>(pol_malloc(config->size + 1, pol::MEM_CONFIG_XML));
    memcpy(config->text, text, config->size + 1);
  }
};

TEST_F(XmlConfigTest, RecordsOrderByTypeThenName) {
  store(pol_xml_config_find_or_create(5, "a"), "<tloc-list>");
  pol_xml_config_find_or_create(4, "b");
  pol_xml_config_find_or_create(4, "a");
  t_pol_xml_config* long_name = pol_xml_config_find_or_create(1, std::string(200, 'n').c_str());
  EXPECT_EQ(pol_xml_config_find_or_create(1, std::string(127, 'n').c_str()), long_name);
  std::string text =
      printed([](t_cli_user_ctx* cli) { pol_dump_xml_config_all(cli, 0, 0, nullptr); });
  EXPECT_NE(text.find("nn, Type: 1, Size: 0\nXML: \nName: a, Type: 4, Size: 0\nXML: \n"
                      "Name: b, Type: 4, Size: 0\nXML: \nName: a, Type: 5, Size: 11\n"
                      "XML: <tloc-list>\n"),
            std::string::npos)
      << text;
  EXPECT_STREQ(pol_xml_config_find_or_create(5, "a")->text, "<tloc-list>") << "it keeps its text";
  pol_xml_config_find_and_delete(5, "a");
  pol_xml_config_find_and_delete(5, "a");
  EXPECT_EQ(current(pol::MEM_CONFIG_XML), 0u);
}

TEST_F(XmlConfigTest, TextIsAppendedAndUnknownObjectsAddNothing) {
  store(pol_xml_config_find_or_create(4, "v"), "<vpn-list>");
  char* buffer = static_cast<char*>(pol_calloc(1, 13, pol::MEM_PEER_XML));
  uint32_t room = 12;
  auto get = [&](const char* name) { return pol_xml_config_get_str(4, name, &buffer, &room); };
  EXPECT_EQ(get("v"), POL_OK);
  EXPECT_STREQ(buffer, "<vpn-list>");
  EXPECT_EQ(get("w"), POL_OK);
  EXPECT_EQ(room, 2u);
  EXPECT_EQ(get("v"), POL_OK);
  EXPECT_EQ(room, 0u) << "a grown buffer has no room left";
  pol_debug_set(1);
  seams::Fail none(1);
  EXPECT_EQ(get("v"), POL_ENOMEM);
  EXPECT_STREQ(buffer, "<vpn-list><vpn-list>");
  EXPECT_NE(seams::take_log().find("[POL] Could not append policy (error:0)\n"), std::string::npos);
  pol_free(buffer, pol::MEM_PEER_XML);
}

// Parts that fill the reader's steps may take as long as the sender likes; drops may not.
TEST_F(XmlConfigTest, AStreamThatDripsIsGivenUp) {
  for (const size_t part : {size_t{1}, size_t{4096}}) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const timeval limit = {0, 100'000};
    ASSERT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit), 0);
    std::thread sender([&] {
      const std::string text(part, 'x');
      for (int i = 0; i < 8 && send(ends[1], text.data(), part, MSG_NOSIGNAL) > 0; ++i) {
        usleep(50'000);
      }
      close(ends[1]);
    });
    size_t length = 0;
    char* text = pol::receive_text(ends[0], "/p", &length);
    EXPECT_EQ(text == nullptr, part == 1);
    EXPECT_EQ(length, part == 1 ? 0 : 8 * part);
    pol_free(text, pol::MEM_FETCH_XML);
    close(ends[0]);
    sender.join();
  }
}

}  // namespace
