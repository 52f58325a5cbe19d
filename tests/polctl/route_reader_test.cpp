// SPDX-License-Identifier: Apache-2.0
#include "tool/route_reader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "host/address_text.h"
#include "host/input_error.h"
#include "host/tloc_resolver.h"
#include "support/golden.h"
#include "support/process.h"
#include "tool/expect/test_file.h"
#include "tool/tloc_reader.h"

namespace polctl {
namespace {

struct ReadRoute {
  t_pol_route_query query;
  t_pol_route_attr attr;
};

std::vector<ReadRoute> read_all(const std::string& content) {
  RouteReader reader(temporary_file(content));
  std::vector<ReadRoute> routes;
  auto route = std::make_unique<ReadRoute>();
  for (;;) {
    memset(&route->query, 0, sizeof route->query);
    if (!reader.next(&route->query, &route->attr)) return routes;
    routes.push_back(*route);
  }
}

// What `read`, given a file and room for a route, says of one whose faulty line comes second.
template <typename Read>
std::string complaint_of(const std::string& first, const std::string& line, Read read) {
  std::string path = temporary_file(first + "\n" + line);
  auto route = std::make_unique<ReadRoute>();
  memset(route.get(), 0, sizeof *route);
  try {
    read(path, route.get());
  } catch (const InputError& error) {
    std::string what = error.what();
    EXPECT_EQ(what.substr(0, path.size()), path);
    return what.substr(path.size());
  }
  return "accepted";
}

std::string complaint_about(const std::string& line) {
  return complaint_of("10.0.0.0/8", line, [](const std::string& path, ReadRoute* route) {
    RouteReader reader(path);
    while (reader.next(&route->query, &route->attr)) memset(route, 0, sizeof *route);
  });
}

std::string complaint_about_test(const std::string& line) {
  const char* first = R"({"type":"route","policy":"p","expect":{"set":{}}})";
  return complaint_of(first, line, [](const std::string& path, ReadRoute* route) {
    TestFile file(path, "");
    TestCase test;
    while (file.next(&test, &route->query, &route->attr)) memset(route, 0, sizeof *route);
  });
}

template <typename Complain>
void expect_faults(const std::string& golden, Complain complain) {
  std::istringstream lines(read_golden(golden + ".in"));
  std::string all;
  for (std::string line; std::getline(lines, line);) {
    all += line + "\n=> " + complain(line) + "\n";
  }
  expect_golden(golden + ".ok", all);
}

TEST(RouteReaderTest, ReadsEveryMember) {
  std::vector<ReadRoute> routes = read_all(
      R"({"type":"service", "prefix":"10.1.0.0/16", "vpn":18446744073709551615, "tag":4294967295,)"
      R"( "preference":100, "domain":1, "site":10, "groups":[1,2,3], "carrier":255,)"
      R"( "tloc":{"address":"10.0.0.1","color":3,"encap":2}, "origin":[4,2],)"
      R"( "originator":"2001:db8::9"})"
      "\n");
  ASSERT_EQ(routes.size(), 1u);
  const auto& [query, attr] = routes[0];
  EXPECT_EQ(query.match_type, POL_MATCH_SERVICE);
  EXPECT_EQ(prefix_text(query.prefix), "10.1.0.0/16");
  EXPECT_EQ(query.vpn, UINT64_MAX);
  EXPECT_EQ(attr.present, POL_ATTR_TLOC | POL_ATTR_PREF | POL_ATTR_TAG | POL_ATTR_DOMAIN |
                              POL_ATTR_SITE | POL_ATTR_ORIGIN | POL_ATTR_ORIGINATOR |
                              POL_ATTR_GROUP | POL_ATTR_CARRIER);
  EXPECT_EQ(std::tuple(attr.tag, attr.preference, attr.domain, attr.site, attr.group_count),
            std::tuple(UINT32_MAX, 100u, 1u, 10u, 3u));
  EXPECT_EQ(std::tuple(attr.group[2], attr.carrier, attr.origin_protocol, attr.origin_subtype),
            std::tuple(3u, 255, 4, 2));
  EXPECT_EQ(address_text(attr.originator), "2001:db8::9");
  EXPECT_EQ(tloc_text(attr.tloc), "10.0.0.1 : internet : ipsec");
  EXPECT_EQ(tloc_text(query.tloc), "10.0.0.1 : internet : ipsec");
}

TEST(RouteReaderTest, NothingOfOneRouteStaysForTheNext) {
  std::vector<ReadRoute> routes = read_all(
      "{\"type\":\"tloc\",\"tag\":5,\"groups\":[7],\"tloc\":{\"address\":\"1.2.3.4\"}}\n"
      "{\"type\":\"route\",\"groups\":[]}\n"
      "10.0.0.0/8\n");
  ASSERT_EQ(routes.size(), 3u);
  EXPECT_EQ(routes[1].attr.present, POL_ATTR_GROUP);
  EXPECT_EQ(routes[1].attr.group_count, 0u);
  EXPECT_EQ(routes[1].query.tloc.family, 0u);
  EXPECT_EQ(routes[1].query.prefix.addr.family, 0u);
  EXPECT_EQ(routes[2].attr.present, 0u);
  EXPECT_EQ(routes[2].query.match_type, POL_MATCH_ROUTE);
}

// The reader's two parsers: what the fast one takes, the other one takes for the same route.
TEST(RouteReaderTest, WhatIsReadFastIsReadRight) {
  const std::string line =
      R"({"type":"tloc","prefix":"10.1.0.0/16","vpn":18446744073709551615,"tag":7,"site":10,)"
      R"("preference":100,"domain":1,"groups":[1,2],"carrier":"carrier3",)"
      R"("tloc":{"address":"2001:db8::1","color":"mpls","encap":2},"origin":[4,2],)"
      R"("originator":"10.0.0.9"})";
  const std::string pieces[] = {
      "\"", "\\", "{",  "}",       "[",    "]",    ",",    ":",          " ",        "0",
      "-",  ".5", "e3", "\\u0041", "\xff", "\x01", "null", "\"tag\":7,", "\"a\":1,", "4294967296"};
  std::mt19937 random(7);
  RouteJson fast;
  auto quick = std::make_unique<ReadRoute>();
  auto exact = std::make_unique<ReadRoute>();
  int taken = 0;
  for (int i = 0; i < 60000; ++i) {
    std::string text = line;
    for (unsigned changes = random() % 3; changes > 0; --changes) {
      size_t at = random() % text.size();
      if (random() % 2 == 0) text.erase(at, 1 + random() % 12);
      if (random() % 2 == 0)
        text.insert(std::min(at, text.size()), pieces[random() % std::size(pieces)]);
    }
    const size_t size = text.size();
    text.append(LineReader::kBeyond, '7');
    *quick = {};
    *exact = {};
    bool has_vpn = false;
    if (!fast.read({text.data(), size}, &quick->query, &quick->attr, &has_vpn)) continue;
    ++taken;
    JsonLine json;
    ASSERT_NO_THROW({
      split_json_line({text.data(), size}, &json);
      read_route_fields(json, &exact->query, &exact->attr);
    }) << text;
    ASSERT_EQ(memcmp(quick.get(), exact.get(), sizeof *quick), 0) << text;
    ASSERT_EQ(has_vpn, text.find("\"vpn\"") != std::string::npos) << text;
  }
  EXPECT_GT(taken, 10000);
}

TEST(RouteReaderTest, TakesBlanksCommentsAndAnyLineEnd) {
  std::vector<ReadRoute> routes = read_all(
      "# a comment\r\n\r\n  10.0.0.0/8\t\r\n \t\n{\"type\":\"route\"}  "
      "\r\n2001:DB8::/32\n0.0.0.0/0");
  ASSERT_EQ(routes.size(), 4u);
  EXPECT_EQ(prefix_text(routes[0].query.prefix), "10.0.0.0/8");
  EXPECT_EQ(prefix_text(routes[2].query.prefix), "2001:db8::/32");
  EXPECT_EQ(prefix_text(routes[3].query.prefix), "0.0.0.0/0");
}

TEST(RouteReaderTest, FaultsMatchTheirGolden) {
  expect_faults("routes/faults", complaint_about);
  expect_faults("routes/test_faults", complaint_about_test);
}

TEST(RouteReaderTest, BytesThatAreNoTextAreRefused) {
  using namespace std::string_literals;
  EXPECT_EQ(complaint_about("{\"type\":\"route\"}\0{\"tag\":5}"s),
            ":2:17: error: a NUL byte (expected text)");
  EXPECT_EQ(complaint_about("10.0.0.0/8\0"s).substr(0, 36),
            ":2:10: error: bad prefix length \"8?\"");
  EXPECT_EQ(complaint_about("{\"type\":\"ro\xffute\"}").substr(0, 38),
            ":2:9: error: bad JSON: invalid string:");
  EXPECT_EQ(complaint_about("10.0.0.0/\033[31m8").find('\033'), std::string::npos);
}

TEST(RouteReaderTest, LinesAreBoundedAndTheBoundIsExact) {
  std::string prefix = "10.0.0.0/8";
  std::string longest(LineReader::kMaxLine - prefix.size(), ' ');
  EXPECT_EQ(read_all(longest + prefix + "\n" + longest + prefix + "\n" + prefix).size(), 3u);
  EXPECT_EQ(complaint_about(" " + longest + prefix + "\n"),
            ":2:65537: error: the line is too long (expected at most 65536 bytes)");
  EXPECT_EQ(complaint_about(std::string(1000000, '[')).substr(0, 40),
            ":2:65537: error: the line is too long (e");
  EXPECT_EQ(complaint_about("{\"type\":\"route\",\"groups\":" + std::string(60000, '[')),
            ":2:27: error: values are nested too deeply (expected a plain value)");
  std::string groups;
  for (int i = 0; i <= POL_MAX_GROUP; ++i) groups += i == 0 ? "1" : ",1";
  EXPECT_EQ(complaint_about("{\"type\":\"route\",\"groups\":[" + groups + "]}"),
            ":2:155: error: too many groups (expected at most 64)");
}

TEST(LineReaderTest, AnOverlongLineComesCutAndTheNextOneWhole) {
  std::string path = temporary_file(std::string(300000, 'x') + "\nnext\n");
  LineReader reader(path);
  std::string_view line;
  ASSERT_TRUE(reader.next(&line));
  EXPECT_TRUE(reader.overlong());
  EXPECT_EQ(line.size(), LineReader::kMaxLine);
  ASSERT_TRUE(reader.next(&line));
  EXPECT_FALSE(reader.overlong());
  EXPECT_EQ(line, "next");
  EXPECT_EQ(reader.line(), 2u);
  EXPECT_EQ(reader.position(), reader.size());
  EXPECT_FALSE(reader.next(&line));
}

t_pol_tloc_result resolved(uint32_t ipv4, uint8_t color, uint8_t encap) {
  t_pol_tloc_result result = {};
  resolve_tloc(0, ipv4, color, encap, 0, 0, &result);
  return result;
}

TEST(TlocResolverTest, ResolvesByAddressColorAndEncapsulation) {
  EXPECT_EQ(resolved(0x0a000001, 3, 2).count, 1u)
      << "each resolves to itself before a file is read";
  load_resolvable_tlocs(temporary_file(
      "{\"address\":\"10.0.0.1\",\"color\":3,\"encap\":2,\"label\":8,\"preference\":9}\n"
      "{\"address\":\"10.0.0.1\",\"color\":4,\"encap\":2}\n"
      "{\"address\":\"10.0.0.1\",\"color\":3,\"encap\":1,\"label\":7}\n"
      "{\"address\":\"2001:db8::1\",\"color\":3,\"encap\":2}\n"));
  t_pol_tloc_result any = resolved(0x0a000001, 3, 0);
  ASSERT_EQ(any.count, 2u) << "no encapsulation asks for any";
  EXPECT_EQ(any.entry[0].label, 8u);
  EXPECT_EQ(any.entry[0].preference, 9u);
  EXPECT_EQ(any.entry[1].label, 7u);
  EXPECT_EQ(resolved(0x0a000001, 3, 1).count, 1u);
  EXPECT_EQ(resolved(0x0a000002, 3, 2).count, 0u);
  EXPECT_EQ(resolved(0, 3, 2).count, 0u) << "TLOCs that are not IPv4 are asked for without address";
}

TEST(TlocResolverTest, NeverFillsMoreThanTheLibraryTakes) {
  std::string many;
  for (int i = 0; i < 100; ++i) many += "{\"address\":\"10.0.0.1\",\"color\":3}\n";
  load_resolvable_tlocs(temporary_file(many));
  EXPECT_EQ(resolved(0x0a000001, 3, 0).count, uint32_t{POL_MAX_TLOC});
}

}  // namespace
}  // namespace polctl
