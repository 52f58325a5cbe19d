// SPDX-License-Identifier: Apache-2.0
//
// The client's functions, each with what it does and how it fails.
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "support.h"
#include "support/golden.h"

namespace test {
namespace {

class ClientTest : public ::testing::Test {
 protected:
  std::string get(int trans, const char* path) const {
    char text[128] = "";
    int length = maapi_get_elem_text(session_.fd(), trans, text, sizeof text, "%s", path);
    return length >= 0 ? std::string(text, static_cast<size_t>(length)) : "! " + why(length);
  }

  AgentProcess agent_;
  Session session_{agent_.port()};
  int fd_ = session_.fd();
};

char g_name[] = "apps";
constexpr char kSequence[] = "/policy/data-policy{D}/vpn-list{V}/sequence{10}";
const std::string kDataPolicy = policy(
    "<data-policy><name>D</name><vpn-list><name>V</name><sequence><number>10</number></sequence>"
    "</vpn-list></data-policy>");

TEST_F(ClientTest, EditsOfATransactionShowInItAtOnceAndOutsideAfterApply) {
  int trans = session_.begin();
  EXPECT_EQ(why(maapi_create(fd_, trans, "/policy/policer{p}")), "ok");
  EXPECT_EQ(why(maapi_set_elem_text(fd_, trans, "1000", "/policy/policer{p}/rate")), "ok");
  EXPECT_EQ(get(trans, "/policy/policer{p}/rate"), "1000");
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy/policer{p}"), 1);
  EXPECT_EQ(maapi_num_instances(fd_, trans, "/policy/policer"), 1);
  int other = session_.begin(MAAPI_CANDIDATE, MAAPI_READ);
  EXPECT_EQ(maapi_exists(fd_, other, "/policy/policer{p}"), 0);
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)), "ok");
  EXPECT_EQ(maapi_exists(fd_, other, "/policy/policer{p}"), 0) << "a transaction is a snapshot";
  int later = session_.begin(MAAPI_CANDIDATE, MAAPI_READ);
  EXPECT_EQ(maapi_exists(fd_, later, "/policy/policer{p}"), 1);
  EXPECT_EQ(why(maapi_set_elem_text(fd_, trans, "5", "/policy/policer{p}/burst")), "ok")
      << "kept open";
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 0)), "ok");
  EXPECT_EQ(why(maapi_set_elem_text(fd_, trans, "6", "/policy/policer{p}/burst")),
            "bad request: the transaction is applied already");
  EXPECT_EQ(why(maapi_finish_trans(fd_, trans)), "ok");
  EXPECT_EQ(why(maapi_finish_trans(fd_, trans)), "bad request: no such transaction");
}

TEST_F(ClientTest, TypedValuesOfEveryKindArriveInCanonicalForm) {
  ASSERT_EQ(why(session_.load(kDataPolicy)), "ok");
  int trans = session_.begin();
  t_yarrow_value values[7] = {};
  const uint32_t types[] = {C_BUF,        C_IPV4PREFIX, C_UINT32,    C_IPV4,
                            C_ENUM_VALUE, C_XMLTAG,     C_ENUM_VALUE};
  for (size_t i = 0; i < 7; ++i) values[i].type = types[i];
  values[0].val.buf = {4, reinterpret_cast<uint8_t*>(g_name)};
  values[1].val.ipv4prefix = {htonl(0x0a010203), 16};
  values[2].val.u32 = 70;
  values[3].val.ip = htonl(0x0a010203);
  values[4].val.enumvalue = 6;
  values[6].val.enumvalue = 99;
  const char* const leaves[] = {"match/app-list",        "match/source-ip",
                                "action/set/vpn",        "action/set/tloc/address",
                                "action/set/tloc/color", "action/set/tloc/local",
                                "action/set/tloc/color"};
  for (size_t i = 0; i < 7; ++i) {
    EXPECT_EQ(why(maapi_set_elem(fd_, trans, &values[i], "%s/%s", kSequence, leaves[i])),
              i < 6 ? "ok"
                    : "bad value: /policy/data-policy/vpn-list/sequence/action/set/tloc/color: no "
                      "word has the number 99");
  }
  ASSERT_EQ(why(maapi_apply_trans(fd_, trans, 0)), "ok");
  const std::string saved = session_.save(kSequence, MAAPI_CANDIDATE);
  for (const char* text :
       {"<source-ip>10.1.0.0/16</source-ip>", "<app-list>apps</app-list>", "<vpn>70</vpn>",
        "<address>10.1.2.3</address><color>5g</color>", "<local"}) {
    EXPECT_NE(saved.find(text), std::string::npos) << text << saved;
  }
  t_yarrow_value entry[5] = {};
  const uint32_t shape[] = {C_UINT8, C_NOEXISTS, C_NOEXISTS, C_NOEXISTS, C_UINT32};
  for (size_t i = 0; i < 5; ++i) entry[i].type = shape[i];
  trans = session_.begin();
  EXPECT_EQ(
      why(maapi_set_object(fd_, trans, entry, 5, "%s/action/set/kel-tloc-pref-list{7}", kSequence)),
      "bad value: /policy/data-policy{D}/vpn-list{V}/sequence{10}/action/set/kel-tloc-pref-list{7}"
      "/index: is not the key of the path")
      << "its key is not that of the path";
  EXPECT_EQ(maapi_exists(fd_, trans, "%s/action/set/kel-tloc-pref-list{7}", kSequence), 0);
  EXPECT_EQ(why(maapi_set_elem_text(
                fd_, trans, "5",
                "/policy/data-policy{gone}/vpn-list{V}/sequence{1}/action/set/vpn-label")),
            "no such node: /policy/data-policy{gone}/vpn-list{V}/sequence{1}/action/set/vpn-label: "
            "has no parent")
      << "labels bring no deleted policy back";
}

TEST_F(ClientTest, PathsThatDoNotFitTheSchemaAreNamed) {
  int trans = session_.begin();
  std::istringstream paths(read_golden("changes/paths.in"));
  std::string all;
  for (std::string path; std::getline(paths, path);) {
    all += path + "\n    " + why(maapi_delete(fd_, trans, "%s", path.c_str())) + "\n";
  }
  expect_golden("changes/paths.ok", all);
  EXPECT_EQ(why(maapi_delete(fd_, trans, "/policy/policer{%s}", std::string(5000, 'x').c_str())),
            "too big: a path too long");
}

// The cache cuts saved text at these marks.
TEST_F(ClientTest, SavedTextIsOneLineShapedSoThatHeadersAndFootersCutIt) {
  const std::string vpn_list =
      "<lists><vpn-list><name>V</name><vpn><id>10</id></vpn></vpn-list></lists>";
  const std::string sla_class = "<sla-class><name>a&amp;b</name></sla-class>";
  ASSERT_EQ(why(session_.commit(policy(vpn_list +
                                       "\n <lists><vpn-list><name>W</name></vpn-list>\n"
                                       "</lists>" +
                                       sla_class))),
            "ok");
  auto saved = [](const std::string& inner) {
    return "<config xmlns=\"urn:norvik:config:1.0\">" + policy(inner) + "</config>";
  };
  EXPECT_EQ(session_.save("/policy/lists/vpn-list{V}"), saved(vpn_list));
  EXPECT_EQ(session_.save("/policy/sla-class"), saved(sla_class));
  int trans = session_.begin(MAAPI_RUNNING, MAAPI_READ);
  EXPECT_EQ(why(maapi_save_config(fd_, trans, YARROW_CONFIG_XML, "/policy/lists/vpn-list{none}")),
            "no such node: /policy/lists/vpn-list{none}: no such node");
  int id = maapi_save_config(fd_, trans, YARROW_CONFIG_XML, "/policy");
  Socket stream(agent_.port());
  EXPECT_EQ(why(yarrow_stream_connect(stream.fd(), stream.addr(), stream.addr_len(), id, 0)), "ok");
  Socket again(agent_.port());
  EXPECT_EQ(yarrow_stream_connect(again.fd(), again.addr(), again.addr_len(), id, 0), YARROW_ERR)
      << "it has its reader";
  id = maapi_save_config(fd_, trans, YARROW_CONFIG_XML, "/policy");
  EXPECT_EQ(maapi_save_config_result(fd_, id), YARROW_ERR) << "nobody read it";
}

TEST_F(ClientTest, LoadMergesReplacesOrStartsAfreshAsItsFlagsSay) {
  const std::string received =
      "<config xmlns=\"urn:norvik:config:1.0\"><policy-from-pellux "
      "xmlns=\"urn:zenodra:policy\">";
  const std::string end = "</policy-from-pellux></config>";
  ASSERT_EQ(why(session_.load(policy("<app-id><name>keep</name></app-id>"))), "ok");
  ASSERT_EQ(why(session_.load(received + "<app-id><name>old</name></app-id>" + end, 0x4401)), "ok");
  ASSERT_EQ(why(session_.load(received + "<app-id><name>new</name></app-id>" + end, 0x4401)), "ok");
  int trans = session_.begin();
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy-from-pellux/app-id{old}"), 0);
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy-from-pellux/app-id{new}"), 1);
  ASSERT_EQ(why(session_.load(received + end, 0x4401)), "ok") << "an empty envelope empties it";
  trans = session_.begin();
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy-from-pellux"), 0);
  EXPECT_EQ(why(maapi_delete(fd_, trans, "/policy-from-pellux")), "ok")
      << "though there is nothing";
  TempDirectory directory;
  std::string file = directory.path() + "/one.xml";
  std::ofstream(file) << policy("<app-id><name>a</name></app-id>");
  EXPECT_EQ(why(maapi_load_config(fd_, trans, 0x41, file.c_str())), "ok");
  EXPECT_EQ(maapi_num_instances(fd_, trans, "/policy/app-id"), 2);
  const std::string colors = policy(
      "<app-route-policy><name>D</name><vpn-list><name>V</name><preferred-color>mpls"
      "</preferred-color></vpn-list></app-route-policy>");
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(why(session_.load(colors)), "ok");
    EXPECT_EQ(session_.save("/policy/app-route-policy", MAAPI_CANDIDATE),
              "<config xmlns=\"urn:norvik:config:1.0\">" + colors + "</config>");
  }
  EXPECT_EQ(why(maapi_load_config(fd_, trans, 0x1, file.c_str())), "ok");
  EXPECT_EQ(maapi_num_instances(fd_, trans, "/policy/app-id"), 1);
  EXPECT_EQ(why(maapi_load_config_cmds(fd_, trans, 0x41, "<sequence><number>5</number></sequence>",
                                       "/policy/control-policy{none}")),
            "ok");
  EXPECT_EQ(maapi_exists(fd_, trans, "/policy/control-policy{none}/sequence{5}"), 1);
  EXPECT_EQ(maapi_load_config(fd_, trans, 0x41, (file + ".none").c_str()), YARROW_ERR);
  EXPECT_EQ(yarrow_errno, YARROW_ERR_OS);
}

// What is published, counted and deleted is seen with the library's own calls.
TEST_F(ClientTest, OperationalDataIsGuardedByTheLockOfItsCdbSession) {
  const std::string show = policy("<from-pellux><app-id><name>a</name></app-id></from-pellux>");
  int trans = session_.begin(MAAPI_OPERATIONAL);
  EXPECT_EQ(why(maapi_load_config_cmds(fd_, trans, 0x41, show.c_str(), "%s", "")), "ok");
  EXPECT_EQ(why(maapi_load_config_cmds(fd_, trans, 0x41, kDataPolicy.c_str(), "%s", "")),
            "malformed text: line 1: /policy/data-policy: is no state data");
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)), "ok");
  Socket cdb(agent_.port());
  ASSERT_EQ(why(cdb_connect(cdb.fd(), CDB_DATA_SOCKET, cdb.addr(), cdb.addr_len())), "ok");
  EXPECT_EQ(cdb_num_instances(cdb.fd(), "/policy/from-pellux/app-id"), YARROW_ERR) << "no session";
  ASSERT_EQ(why(maapi_lock(fd_, MAAPI_OPERATIONAL)), "ok");
  EXPECT_EQ(why(cdb_start_session2(cdb.fd(), CDB_OPERATIONAL, CDB_LOCK_SESSION)),
            "locked by another session: another session holds the lock");
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    maapi_unlock(fd_, MAAPI_OPERATIONAL);
  });
  EXPECT_EQ(why(cdb_start_session2(cdb.fd(), CDB_OPERATIONAL, CDB_LOCK_SESSION | CDB_LOCK_WAIT)),
            "ok");
  release.join();
  EXPECT_EQ(cdb_exists(cdb.fd(), "/policy/from-pellux/app-id{%s}", "a"), 1);
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)),
            "locked by another session: another session holds the lock");
  EXPECT_EQ(why(cdb_end_session(cdb.fd())), "ok");
  EXPECT_EQ(why(maapi_apply_trans(fd_, trans, 1)), "ok");
  ASSERT_EQ(why(cdb_start_session2(cdb.fd(), CDB_RUNNING, 0)), "ok");
  EXPECT_EQ(why(cdb_delete(cdb.fd(), "/policy")),
            "access denied: only operational data is written without a transaction");
}

TEST_F(ClientTest, CallsOutOfOrderAreRefused) {
  Socket bare(agent_.port());
  EXPECT_EQ(why(static_cast<int>(maapi_commit_id(bare.fd()))),
            "not connected: the connection is lost");
  setenv(YARROW_PORT_VARIABLE, "70000", 1);
  EXPECT_EQ(why(maapi_connect(bare.fd(), bare.addr(), bare.addr_len())),
            "bad request: " YARROW_PORT_VARIABLE " is not a port");
  unsetenv(YARROW_PORT_VARIABLE);
  ASSERT_EQ(why(maapi_connect(bare.fd(), bare.addr(), bare.addr_len())), "ok");
  EXPECT_EQ(why(maapi_candidate_commit(bare.fd())), "bad request: no user session");
  EXPECT_EQ(why(maapi_start_user_session3(fd_, "u", "c", nullptr, nullptr)),
            "exists already: the socket has its user session");
  EXPECT_EQ(why(maapi_start_trans_flags2(fd_, 9, 2, 0, 0, nullptr, nullptr)),
            "bad request: no such datastore");
  int trans = session_.begin(MAAPI_RUNNING, MAAPI_READ);
  EXPECT_EQ(why(maapi_create(fd_, trans, "/policy/app-id{a}")),
            "access denied: a transaction for reading");
  EXPECT_EQ(why(maapi_end_user_session(fd_)), "ok");
  EXPECT_EQ(why(maapi_finish_trans(fd_, trans)), "bad request: no user session");
}

}  // namespace
}  // namespace test
