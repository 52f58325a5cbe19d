// SPDX-License-Identifier: Apache-2.0
//
// Routes of other programs. Whatever bytes come, an importer refuses them in one line or makes lines that
// the reader of routes takes.
#include "tool/importing/route_import.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>

#include "host/input_error.h"
#include "support/process.h"
#include "tool/route_reader.h"

namespace polctl {
namespace {

using Importer = std::string (*)(std::string_view, const std::string&);

std::string said(Importer import, std::string_view text) {
  try {
    return import(text, "f");
  } catch (const InputError& error) {
    std::string what = error.what();
    EXPECT_EQ(what.find('\n'), std::string::npos) << what;
    return what;
  }
}

TEST(RouteImportTest, TakesWhatOthersWriteAndPlacesWhatIsWrong) {
  const std::string route = R"({"type":"route")";
  struct {
    Importer import;
    const char* text;
    std::string expected; /* lines, or the beginning of what is said */
  } const rows[] = {
      {lines_of_prefixes, " 10.0.0.0/8\r\n# no\n\n2001:db8::/32", "10.0.0.0/8\n2001:db8::/32\n"},
      {lines_of_prefixes, "10.0.0.0/8\n {}", "f:2:2: error: \"{}\" is no prefix (expected "},
      {lines_of_csv,
       "site, prefix ,groups,color,tloc\n301,10.1.0.0/16,1 2,mpls,10.0.0.9\r\n\n,,,,\n",
       R"({"site":301,"prefix":"10.1.0.0/16","type":"route","tloc":{"color":"mpls","address":"10.0.0.9"},"groups":[1,2]})"
       "\n" +
           route + "}\n"},
      {lines_of_csv, "\xef\xbb\xbf\"type\",vpn\n\"serv\"\"ice\",10\n",
       "f:2:2: error: unknown type"},
      {lines_of_csv, "prefix,vnp\n", "f:1:8: error: unknown name \"vnp\", did you mean vpn?"},
      {lines_of_csv, "prefix,vpn\n10.0.0.0/8,7\n10.0.0.0/8,x\n",
       "f:3:12: error: \"vpn\" is the text"},
      {lines_of_csv, "prefix,vpn\n10.0.0.0/8\n", "f:2:1: error: 1 cells (expected 2, as there"},
      {lines_of_csv, "prefix\n\"10.0.0.0/8", "f:2:1: error: a quote is not closed"},
      {lines_of_csv, "prefix\n\"10.0.0.0/8\"x\n", "f:2:13: error: text behind a quoted cell"},
      {lines_of_csv, "", "f: error: there is nothing in it"},
      {lines_of_ip_json,
       R"([{"dst":"default","gateway":"fe80::1","protocol":"ra"},
           {"dst":"10.1.0.0/16","protocol":"kernel","flags":[]},{"dst":"10.9.9.9","protocol":"static"},
           {"type":"broadcast","dst":"10.1.255.255"},{"type":"blackhole","dst":"2001:db8::/32"},
           {"dst":"default","dev":"wan0"}])",
       route +
           R"(,"prefix":"::/0"})"
           "\n" +
           route +
           R"(,"prefix":"10.1.0.0/16","origin":"connected"})"
           "\n" +
           route +
           R"(,"prefix":"10.9.9.9/32","origin":"static"})"
           "\n" +
           route +
           R"(,"prefix":"2001:db8::/32"})"
           "\n" +
           route +
           R"(,"prefix":"::/0"})"
           "\n"},
      {lines_of_ip_json, "[{\"dst\":\n \"10.0.0.0/8\",]", "f:2:15: error: bad JSON"},
      {lines_of_ip_json, R"([{"dst":"10.0.0.0/8"},{"dst":"10.0.0.0/99"}])",
       "f: error: route 2: bad"},
      {lines_of_ip_json, R"([{"dst":7}])", "f: error: route 1: \"dst\" is no text"},
      {lines_of_ip_json, R"({"dst":"10.0.0.0/8"})", "f: error: it is no array"},
  };
  for (const auto& row : rows) {
    std::string answer = said(row.import, row.text);
    bool lines = row.expected.empty() || row.expected.back() == '\n';
    EXPECT_EQ(lines ? answer : answer.substr(0, row.expected.size()), row.expected) << row.text;
  }
}

std::string number(size_t size, uint64_t value) {
  std::string bytes;
  for (size_t i = size; i-- > 0;) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

std::string record(uint16_t subtype, const std::string& body, uint16_t type = 13) {
  return number(4, 0) + number(2, type) + number(2, subtype) + number(4, body.size()) + body;
}

std::string path(uint16_t peer, const std::string& attributes) {
  return number(2, peer) + number(4, 0) + number(2, attributes.size()) + attributes;
}

// Two peers, one of them IPv6; a prefix with two paths, one of IPv6, one of multicast, one with path ids.
std::string table() {
  const std::string local_pref = number(1, 0x40) + number(1, 5) + number(1, 4) + number(4, 300);
  const std::string originator =
      number(1, 0x90) + number(1, 9) + number(2, 4) + number(4, 0x0a000063);
  const std::string peers = number(4, 1) + number(2, 3) + "all" + number(2, 2) + number(1, 2) +
                            number(4, 1) + number(4, 0x0a000001) + number(4, 65001) + number(1, 1) +
                            number(4, 2) + std::string("\x20\x01\x0d\xb8", 4) +
                            std::string(11, '\0') + "\1" + number(2, 65002);
  const std::string prefix = number(4, 0) + number(1, 20) + std::string("\xc0\xa8\x10", 3);
  return record(1, peers) +
         record(2, prefix + number(2, 2) + path(0, local_pref) + path(1, originator + local_pref)) +
         record(4, number(4, 1) + number(1, 0) + number(2, 1) + path(1, "")) +
         record(3, prefix + number(2, 1) + path(0, "")) +
         record(8,
                prefix + number(2, 1) + number(2, 0) + number(4, 0) + number(4, 77) + number(2, 0));
}

const std::string kTableLines =
    "{\"type\":\"route\",\"prefix\":\"192.168.16.0/"
    "20\",\"preference\":300,\"originator\":\"10.0.0.1\"}\n"
    "{\"type\":\"route\",\"prefix\":\"192.168.16.0/"
    "20\",\"preference\":300,\"originator\":\"10.0.0.99\"}\n"
    "{\"type\":\"route\",\"prefix\":\"::/0\",\"originator\":\"2001:db8::1\"}\n"
    "{\"type\":\"route\",\"prefix\":\"192.168.16.0/20\",\"originator\":\"10.0.0.1\"}\n";

void expect_readable(const std::string& lines) {
  RouteReader reader(temporary_file(lines));
  t_pol_route_query query = {};
  t_pol_route_attr attr = {};
  EXPECT_NO_THROW(while (reader.next(&query, &attr)) memset(&query, 0, sizeof query));
}

TEST(RouteImportTest, ATableIsReadAndNothingBeyondItsLengths) {
  const std::string whole = table();
  EXPECT_EQ(said(lines_of_mrt, whole), kTableLines);
  EXPECT_EQ(said(lines_of_mrt, record(1, "", 12)).substr(0, 42),
            "f: error: byte 12: a record of type 12 (ex");
  EXPECT_NE(said(lines_of_mrt, record(2, number(4, 0) + number(1, 33))).find("prefix length of 33"),
            std::string::npos);
  for (size_t cut = 0; cut < whole.size(); ++cut) {
    // A copy of exactly that size: what is read beyond it is seen.
    auto bytes = std::make_unique<char[]>(cut);
    memcpy(bytes.get(), whole.data(), cut);
    std::string answer = said(lines_of_mrt, {bytes.get(), cut});
    bool between = kTableLines.starts_with(answer);  // cut where a record ends
    EXPECT_TRUE(between || answer.find(" goes beyond its end ") != std::string::npos) << cut;
  }
  std::mt19937 random(7);
  std::string lines;
  for (int round = 0; round < 3000; ++round) {
    std::string bytes = whole.substr(0, random() % 4 == 0 ? random() % whole.size() : whole.size());
    for (uint32_t flips = 1 + random() % 3; flips > 0 && !bytes.empty(); --flips) {
      bytes[random() % bytes.size()] = static_cast<char>(random());
    }
    bytes.shrink_to_fit();
    std::string answer = said(lines_of_mrt, bytes);
    if (answer.starts_with("{")) lines += answer;
  }
  EXPECT_FALSE(lines.empty());
  expect_readable(lines);
}

}  // namespace
}  // namespace polctl
