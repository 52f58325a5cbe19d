// SPDX-License-Identifier: Apache-2.0
#include "route_set.h"

#include <bdd.h>
#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <unordered_set>
#include <utility>

// The package's C interface is wanted, and its header offers C++ one by the same names.
#undef bdd_init
#undef bdd_ithvar

namespace polctl {

namespace {

constexpr BDD kNone = 0;
constexpr BDD kAll = 1;

// A node with its share of the caches, in bytes.
constexpr uint64_t kNodeBytes = 40;
constexpr int kFirstNodes = 20'000;
constexpr int kGrowth = 500'000;  // nodes at once
constexpr int kCacheRatio = 8;    // nodes an entry

struct Table {
  bool alive = false;
  bool full = false;  // the package ran out of nodes within an operation
  Bounds bounds;
  std::chrono::steady_clock::time_point end;
  unsigned operations = 0;
};
Table g_table;

extern "C" void note_error(int code) {
  if (code != BDD_NODENUM && code != BDD_MEMORY) {
    fmt::print(stderr, "polctl: internal error: decision diagrams: {}\n", bdd_errstring(code));
    abort();
  }
  g_table.full = true;
}

// What an operation that ran out of nodes left in the package's caches is wrong, and goes.
[[noreturn]] void give_up_for_nodes() {
  g_table.full = false;
  bdd_clear_error();
  bdd_gbc();
  throw NotKnown(fmt::format("it takes more than {} MB", g_table.bounds.megabytes));
}

void look_at_clock() {
  if (++g_table.operations % 64 != 0 || std::chrono::steady_clock::now() < g_table.end) return;
  throw NotKnown(fmt::format("it takes more than {} s",
                             std::chrono::duration<double>(g_table.bounds.time).count()));
}

BDD ranges_below(BitField field, const CodeRange* first, const CodeRange* last, uint64_t low,
                 unsigned depth) {
  const uint64_t size = uint64_t{1} << (field.count - depth);
  while (first != last && first->high < low) ++first;
  if (first == last || first->low >= low + size) return kNone;
  if (first->low <= low && first->high >= low + size - 1) return kAll;
  const CodeRange* middle =
      std::lower_bound(first, last, low + size / 2,
                       [](const CodeRange& range, uint64_t code) { return range.high < code; });
  const CodeRange* left_end = middle != last && middle->low < low + size / 2 ? middle + 1 : middle;
  BDD zero = bdd_addref(ranges_below(field, first, left_end, low, depth + 1));
  BDD one = bdd_addref(ranges_below(field, middle, last, low + size / 2, depth + 1));
  BDD node = bdd_ite(bdd_ithvar(static_cast<int>(field.first + depth)), one, zero);
  bdd_delref(zero);
  bdd_delref(one);
  return node;
}

}  // namespace

BddTable::BddTable(unsigned bits, const Bounds& bounds) {
  if (g_table.alive) throw std::logic_error("two tables of decision diagrams at once");
  bdd_init(kFirstNodes, kFirstNodes / kCacheRatio);
  bdd_error_hook(note_error);
  bdd_gbc_hook(nullptr);
  bdd_resize_hook(nullptr);
  bdd_setcacheratio(kCacheRatio);
  bdd_setmaxincrease(kGrowth);
  bdd_setmaxnodenum(static_cast<int>(
      std::max<uint64_t>(uint64_t{bounds.megabytes} * (1 << 20) / kNodeBytes, kFirstNodes)));
  bdd_setvarnum(static_cast<int>(std::max(bits, 1u)));
  g_table = {true, false, bounds, std::chrono::steady_clock::now() + bounds.time, 0};
}

BddTable::~BddTable() {
  bdd_done();
  g_table.alive = false;
}

size_t BddTable::nodes() { return static_cast<size_t>(bdd_getnodenum()); }

RouteSet::RouteSet(int node) {
  if (g_table.full) give_up_for_nodes();
  look_at_clock();
  node_ = bdd_addref(node);
}

RouteSet RouteSet::all() {
  RouteSet set;
  set.node_ = 1;
  return set;
}

// The constants outlive every table, and sets that come to nothing may, too.
RouteSet::RouteSet(const RouteSet& other) : node_(other.node_) {
  if (node_ > 1) bdd_addref(node_);
}

RouteSet::RouteSet(RouteSet&& other) noexcept : node_(std::exchange(other.node_, 0)) {}

RouteSet& RouteSet::operator=(RouteSet other) noexcept {
  std::swap(node_, other.node_);
  return *this;
}

RouteSet::~RouteSet() {
  if (node_ > 1) bdd_delref(node_);
}

RouteSet RouteSet::apply(const RouteSet& other, int operation) const {
  return RouteSet(bdd_apply(node_, other.node_, operation));
}

RouteSet RouteSet::operator&(const RouteSet& other) const { return apply(other, bddop_and); }
RouteSet RouteSet::operator|(const RouteSet& other) const { return apply(other, bddop_or); }
RouteSet RouteSet::operator-(const RouteSet& other) const { return apply(other, bddop_diff); }
RouteSet RouteSet::operator^(const RouteSet& other) const { return apply(other, bddop_xor); }

RouteSet RouteSet::with(BitField field, const std::vector<CodeRange>& ranges) {
  return RouteSet(ranges_below(field, ranges.data(), ranges.data() + ranges.size(), 0, 0));
}

RouteSet RouteSet::agreeing(const std::vector<int8_t>& bits) {
  RouteSet routes = all();
  for (size_t i = bits.size(); i-- > 0;) {
    if (bits[i] == -1) continue;
    BDD bit = bdd_ithvar(static_cast<int>(i));
    routes = RouteSet(bits[i] == 1 ? bdd_ite(bit, routes.node_, kNone)
                                   : bdd_ite(bit, kNone, routes.node_));
  }
  return routes;
}

bool RouteSet::holds_all(const std::vector<int8_t>& bits) const {
  std::unordered_set<int> seen;
  std::vector<int> open = {node_};
  while (!open.empty()) {
    int node = open.back();
    open.pop_back();
    if (node == 0) return false;
    if (node == 1 || !seen.insert(node).second) continue;
    int8_t bit = bits[static_cast<size_t>(bdd_var(node))];
    if (bit != 1) open.push_back(bdd_low(node));
    if (bit != 0) open.push_back(bdd_high(node));
  }
  return true;
}

std::vector<int8_t> RouteSet::lowest(size_t bits) const {
  std::vector<int8_t> route(bits, -1);
  for (int node = node_; node > 1;) {
    int low = bdd_low(node);
    route[static_cast<size_t>(bdd_var(node))] = low != 0 ? 0 : 1;
    node = low != 0 ? low : bdd_high(node);
  }
  return route;
}

RouteSet RouteMap::cube(uint32_t number) const {
  return RouteSet::with(field_, {{number, number}});
}

void RouteMap::put(const RouteSet& routes, uint32_t number) {
  map_ = RouteSet(bdd_ite(routes.node_, cube(number).node_, map_.node_));
}

// Both diagrams at once: below the last bit of a route the map has the bits of its number.
void RouteMap::numbers_of(const RouteSet& routes, const std::function<bool(uint32_t)>& take) const {
  std::unordered_set<uint64_t> seen;
  std::vector<std::pair<int, int>> open = {{routes.node_, map_.node_}};
  auto level = [](int node) { return node > 1 ? bdd_var(node) : INT_MAX; };
  while (!open.empty()) {
    auto [set, map] = open.back();
    open.pop_back();
    if (set == 0 || !seen.insert(uint64_t(uint32_t(set)) << 32 | uint32_t(map)).second) continue;
    look_at_clock();
    const int bit = std::min(level(set), level(map));
    if (bit < static_cast<int>(field_.first)) {
      const bool asks = level(set) == bit;
      const bool tells = level(map) == bit;
      open.emplace_back(asks ? bdd_high(set) : set, tells ? bdd_high(map) : map);
      open.emplace_back(asks ? bdd_low(set) : set, tells ? bdd_low(map) : map);
      continue;
    }
    uint32_t number = 0;
    for (unsigned i = 0; i < field_.count; ++i) {
      const bool one = bdd_low(map) == 0;
      number = number << 1 | static_cast<uint32_t>(one);
      map = one ? bdd_high(map) : bdd_low(map);
    }
    if (!take(number)) return;
  }
}

size_t RouteSet::nodes() const { return static_cast<size_t>(bdd_nodecount(node_)); }

}  // namespace polctl
