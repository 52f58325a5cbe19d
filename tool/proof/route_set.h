/* SPDX-License-Identifier: Apache-2.0
 *
 * route_set.h - sets of routes as binary decision diagrams. The one place that knows the package behind them
 * (BuDDy), whose table of nodes is global: at most one BddTable is alive, and a RouteSet belongs to it.
 *
 * A route is a word of bits, a group of bits a field (route_space.h says which). Sets share their nodes;
 * equal sets are the same node.
 */
#ifndef TOOL_PROOF_ROUTE_SET_H
#define TOOL_PROOF_ROUTE_SET_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace polctl {

/* What an analysis may take. */
struct Bounds {
  uint32_t megabytes = 400;
  std::chrono::milliseconds time = std::chrono::seconds(60);
};

/* A bound was met: the answer is not known. The table and the sets made so far stay good. */
struct NotKnown : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/* Codes from low to high, both included. */
struct CodeRange {
  uint32_t low;
  uint32_t high;
};

/* Bits of a field: `count` from `first`, the most significant first. */
struct BitField {
  unsigned first = 0;
  unsigned count = 0;
};

class RouteSet {
 public:
  RouteSet() = default; /* no route */
  static RouteSet all();
  RouteSet(const RouteSet& other);
  RouteSet(RouteSet&& other) noexcept;
  RouteSet& operator=(RouteSet other) noexcept;
  ~RouteSet();

  bool empty() const { return node_ == 0; }
  bool is_all() const { return node_ == 1; }
  bool operator==(const RouteSet& other) const { return node_ == other.node_; }

  /* These throw NotKnown when a bound is met. */
  RouteSet operator&(const RouteSet& other) const;
  RouteSet operator|(const RouteSet& other) const;
  RouteSet operator-(const RouteSet& other) const;
  RouteSet operator^(const RouteSet& other) const;
  RouteSet operator~() const { return all() - *this; }

  /* Routes whose field has a code in one of the ranges, which ascend and do not overlap. */
  static RouteSet with(BitField field, const std::vector<CodeRange>& ranges);

  /* Routes whose bits are these: 0, 1, or -1 for any. */
  static RouteSet agreeing(const std::vector<int8_t>& bits);

  /* Whether it holds every route whose bits are these. */
  bool holds_all(const std::vector<int8_t>& bits) const;
  /* The lowest route, bit by bit; -1 where the bit does not matter. REQUIRES: not empty. */
  std::vector<int8_t> lowest(size_t bits) const;
  size_t nodes() const;

 private:
  friend class BddTable;
  friend class RouteMap;
  explicit RouteSet(int node); /* takes a result of the package */
  RouteSet apply(const RouteSet& other, int operation) const;

  int node_ = 0;
};

/* A number for each route, in nodes that maps and sets share. */
class RouteMap {
 public:
  /* Of every route the same. REQUIRES: the field lies behind all bits of routes, and has at least one. */
  RouteMap(BitField field, uint32_t number) : field_(field), map_(cube(number)) {}

  /* The routes of the set have this number from now on. Throws NotKnown. */
  void put(const RouteSet& routes, uint32_t number);

  /* The numbers of the set's routes, some of them more than once, until `take` returns false. Throws
   * NotKnown. */
  void numbers_of(const RouteSet& routes, const std::function<bool(uint32_t)>& take) const;

 private:
  RouteSet cube(uint32_t number) const;

  BitField field_;
  RouteSet map_;
};

class BddTable {
 public:
  BddTable(unsigned bits, const Bounds& bounds);
  ~BddTable();
  BddTable(const BddTable&) = delete;
  BddTable& operator=(const BddTable&) = delete;

  /* Nodes in the table now, of sets that are gone too until it is swept. */
  static size_t nodes();
};

}  // namespace polctl

#endif
