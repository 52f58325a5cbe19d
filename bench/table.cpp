// SPDX-License-Identifier: Apache-2.0
#include "table.h"

#include <unistd.h>

#include <cstdio>
#include <optional>

namespace bench {
namespace {

struct Row {
  const char* title;
  const char* name;
  double bar;          // 0: none
  const char* beside;  // the clause by a plain walk, without the floor; null: none
};

// Whole pol_execute, a route. Bars are multiples of the floor: where these figures were set it was
// 6.5 ns.
constexpr double kFloor = 6.5;

constexpr Row kEvaluations[] = {
    {"floor: empty policy", "floor", 0, nullptr},
    {"W1   list of 10", "W1/10", 16, "W1/10/walk"},
    {"W1   list of 1,000", "W1/1000", 21, "W1/1000/walk"},
    {"W1   list of 100,000", "W1/100000", 34, "W1/100000/walk"},
    {"W1c  clustered, 10", "W1c/10", 16, "W1c/10/walk"},
    {"W1c  clustered, 1,000", "W1c/1000", 21, "W1c/1000/walk"},
    {"W1c  clustered, 100,000", "W1c/100000", 33, "W1c/100000/walk"},
    {"W1r  one of 238 countries", "W1r", 0, "W1r/walk"},
    {"W1r  238 countries in turn", "W1r/together", 0, "W1r/together/walk"},
    {"W2   1 sequence", "W2/1", 12, nullptr},
    {"W2   10 sequences", "W2/10", 16, "W2/10/walk"},
    {"W2   100 sequences", "W2/100", 22, "W2/100/walk"},
    {"W2   1,000 sequences", "W2/1000", 30, "W2/1000/walk"},
    {"W2   10,000 sequences", "W2/10000", 40, "W2/10000/walk"},
    {"W2p  10 with own lists", "W2p/10", 40, "W2p/10/walk"},
    {"W2p  100 with own lists", "W2p/100", 60, "W2p/100/walk"},
    {"W2p  1,000 with own lists", "W2p/1000", 100, "W2p/1000/walk"},
    {"W2m  10 of mixed clauses", "W2m/10", 40, "W2m/10/walk"},
    {"W2m  100 of mixed clauses", "W2m/100", 70, "W2m/100/walk"},
    {"W2m  1,000 of mixed clauses", "W2m/1000", 120, "W2m/1000/walk"},
    {"W3   20 sequences, 2-3 clauses", "W3", 55, nullptr},
};

// A whole load, so many elements; the bars are milliseconds, of a machine at rest.
struct LoadRow {
  const char* title;
  const char* name;
  int sizes[3];
  double bar;  // of the largest
};

constexpr LoadRow kLoads[] = {
    {"W4   prefixes, add", "W4/prefixes/add/", {1000, 10000, 100000}, 100},
    {"W4   prefixes, delete", "W4/prefixes/delete/", {1000, 10000, 100000}, 0},
    {"W4   site ranges, add", "W4/sites/add/", {1000, 10000, 100000}, 100},
    {"W4   site ranges, delete", "W4/sites/delete/", {1000, 10000, 100000}, 0},
    {"W4   sequences, add", "W4/sequences/add/", {10, 100, 1000}, 0},
    {"W4   sequences, delete", "W4/sequences/delete/", {10, 100, 1000}, 0},
};

// Loaded, used and torn down, at three sizes.
struct ScaleRow {
  const char* title;
  const char* name;
  int sizes[3];
};

constexpr ScaleRow kScales[] = {
    {"prefixes of a list; a route", "scale/prefixes/", {10000, 100000, 1000000}},
    {"sequences of tags; a route", "scale/sequences/", {1000, 10000, 100000}},
    {"policies of 10; a route", "scale/policies/", {100, 1000, 10000}},
    {"users of a policy; one told", "scale/users/", {1000, 10000, 100000}},
    {"users that change it; one told", "scale/changers/", {400, 4000, 40000}},
};

constexpr Row kBytes[] = {
    {"W5   100,000 prefixes", "W5/prefixes", 130, nullptr},
    {"W5   100,000 clustered", "W5/clustered", 130, nullptr},
    {"W5   the largest country", "W5/country", 130, nullptr},
    {"W5   100,000, in the directory", "W5/listed", 130, nullptr},
    {"W5   200,000 of IPv6", "W5/ipv6", 200, nullptr},
    {"W5   10,000 tags, the index", "W5/index", 100, nullptr},
    {"W5   100,000 site ranges", "W5/sites", 150, nullptr},
};

std::optional<double> find(const Figures& figures, const std::string& name) {
  auto at = figures.find(name);
  return at != figures.end() ? std::optional(at->second) : std::nullopt;
}

// "  40  met" or "  40  MISSED"; nothing without a bar.
int print_bar(double value, double bar) {
  if (bar == 0) return 0;
  printf("  bar %.3g: %s", bar, value <= bar ? "met" : "MISSED");
  return value <= bar ? 0 : 1;
}

int print_evaluations(const Figures& figures) {
  int missed = 0;
  const double floor = find(figures, "floor").value_or(0);
  printf("\n%-32s%12s%10s%14s%10s\n", "evaluation", "ns/route", "floors", "by a walk", "ratio");
  for (const Row& row : kEvaluations) {
    auto value = find(figures, row.name);
    if (!value) continue;
    printf("%-32s%12.1f%9.1fx", row.title, *value, *value / floor);
    auto beside = row.beside != nullptr ? find(figures, row.beside) : std::nullopt;
    if (beside) {
      // Of a list the walk is the clause alone.
      const double whole = row.name[1] == '1' ? floor + *beside : *beside;
      printf("%14.1f%9.1fx", whole, whole / *value);
    } else {
      printf("%24s", "");
    }
    missed += print_bar(*value / floor, row.bar / kFloor);
    printf("\n");
  }
  return missed;
}

void print_growth(const Figures& figures, const char* title, const char* small, const char* large,
                  const char* words) {
  auto from = find(figures, small);
  auto to = find(figures, large);
  if (from && to) printf("%-32s%11.2fx  %s\n", title, *to / *from, words);
}

int print_growths(const Figures& figures) {
  int missed = 0;
  printf("\n%-32s%12s\n", "growth", "factor");
  print_growth(figures, "W1   10 to 100,000", "W1/10", "W1/100000", "of the time a route");
  print_growth(figures, "W1c  10 to 100,000", "W1c/10", "W1c/100000", "of the time a route");
  print_growth(figures, "W2   10 to 10,000", "W2/10", "W2/10000", "of the time a route");
  print_growth(figures, "W2p  10 to 1,000", "W2p/10", "W2p/1000", "of the time a route");
  print_growth(figures, "W2m  10 to 1,000", "W2m/10", "W2m/1000", "of the time a route");
  for (const char* name : {"batch/1000", "batch/100000", "batch/1000000"}) {
    auto batch = find(figures, name);
    auto one = find(figures, std::string(name) + "/one");
    if (!batch || !one) continue;
    printf("%-32s%11.2fx  of the time one by one", name, *batch / *one);
    missed += print_bar(*batch / *one, std::string(name) == "batch/100000" ? 0.6 : 0);
    printf("\n");
  }
  if (auto change = find(figures, "rebuild/1000")) {
    printf("%-32s%9.2f ms  to change one of 1,000 sequences", "rebuild", *change / 1e6);
    missed += print_bar(*change / 1e6, 1);
    printf("\n");
  }
  auto single = find(figures, "W7/1");
  auto both = find(figures, "W7/2");
  if (single && both) {
    double speedup = *single / *both;
    printf("%-32s%11.2fx  of the routes a second  bar 1.8: %s\n", "W7   1 to 2 threads", speedup,
           speedup >= 1.8 ? "met" : "MISSED");
    // Near 1 means that the threads do not disturb each other, however busy the machine is.
    printf("%-32s%11.2fx  of the processor time a route\n", "",
           figures.at("W7/2/cpu") / figures.at("W7/1/cpu"));
    missed += speedup >= 1.8 ? 0 : 1;
  }
  return missed;
}

int print_loads(const Figures& figures) {
  int missed = 0;
  printf("\n%-32s%12s%14s%10s\n", "load", "ms, largest", "ns/element", "growth");
  for (const LoadRow& row : kLoads) {
    auto small = find(figures, row.name + std::to_string(row.sizes[0]));
    auto large = find(figures, row.name + std::to_string(row.sizes[2]));
    if (!small || !large) continue;
    double each = *large / row.sizes[2];
    printf("%-32s%12.2f%14.1f%9.1fx", row.title, *large / 1e6, each,
           each / (*small / row.sizes[0]));
    missed += print_bar(*large / 1e6, row.bar);
    printf("  (%d, %d, %d)\n", row.sizes[0], row.sizes[1], row.sizes[2]);
  }
  for (int users : {100, 1000, 10000}) {
    auto value = find(figures, "W6/" + std::to_string(users));
    if (!value) continue;
    printf("W6   10,000 changes, %-6d users %11.2f%14.1f  a change\n", users, *value / 1e6,
           *value / 10000);
  }
  return missed;
}

// Each size with its ratio to the one before: 1 where time grows as the size does.
void print_scales(const Figures& figures) {
  constexpr const char* kPhases[] = {"/load", "/use", "/down"};
  if (!find(figures, "scale/users/1000/load")) return;
  printf("\n%-32s%10s%20s%20s%20s\n", "growth, ns and ratio", "size", "load, each", "use",
         "tear down, each");
  for (const ScaleRow& row : kScales) {
    const char* title = row.title;
    std::optional<double> before[3];
    for (int size : row.sizes) {
      printf("%-32s%10d", title, size);
      title = "";
      for (int i = 0; i < 3; ++i) {
        auto now = find(figures, row.name + std::to_string(size) + kPhases[i]);
        printf("%12.1f", now.value_or(0));
        if (before[i] && now) printf("%7.2fx", *now / *before[i]);
        if (!before[i]) printf("%8s", "");
        before[i] = now;
      }
      printf("\n");
    }
  }
}

// Beside each figure the same work in the standard library's containers (the floor), and for both
// how much more a sequence costs among 10,000 than among 1,000, which leaves the caches.
void print_forwarding(const Figures& figures) {
  constexpr const char* kWork[] = {"build", "teardown", "change"};
  if (!find(figures, "W8/build/10000")) return;
  printf("\n%-32s%12s%14s%10s%10s%10s\n", "forwarding, 10,000 sequences", "ms", "ns/sequence",
         "floor", "growth", "floor's");
  for (const char* work : kWork) {
    const std::string name = work;
    auto small = find(figures, "W8/" + name + "/1000");
    auto large = find(figures, "W8/" + name + "/10000");
    auto floor = find(figures, "W8/floor/" + name + "/10000");
    auto small_floor = find(figures, "W8/floor/" + name + "/1000");
    if (!small || !large || !floor || !small_floor) continue;
    printf("W8   %-27s%12.3f%14.1f%9.2fx%9.2fx%9.2fx\n", work, *large / 1e6, *large / 10000,
           *large / *floor, *large / *small / 10, *floor / *small_floor / 10);
  }
}

int print_bytes(const Figures& figures) {
  int missed = 0;
  printf("\n%-32s%12s\n", "memory", "bytes");
  for (const Row& row : kBytes) {
    auto value = find(figures, row.name);
    if (!value) continue;
    printf("%-32s%12.1f  an element", row.title, *value);
    missed += print_bar(*value, row.bar);
    printf("\n");
  }
  return missed;
}

// Processor time, so that what else runs on the machine counts little; but wall time where several
// threads share the work or the benchmark keeps its own clock.
double figure_of(const benchmark::BenchmarkReporter::Run& run) {
  auto bytes = run.counters.find("bytes");
  if (bytes != run.counters.end()) return bytes->second.value;
  const bool own_clock = !run.run_name.time_type.empty();
  return own_clock ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
}

}  // namespace

bool Collector::ReportContext(const Context& /*context*/) { return true; }

void Collector::ReportRuns(const std::vector<Run>& runs) {
  for (const Run& run : runs) {
    if (run.error_occurred) {
      fprintf(stderr, "%s: %s\n", run.benchmark_name().c_str(), run.error_message.c_str());
      failed_ = true;
      continue;
    }
    if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
    figures_[run.run_name.function_name] = figure_of(run);
    figures_[run.run_name.function_name + "/cpu"] = run.GetAdjustedCPUTime();
    for (const auto& [name, counter] : run.counters) {
      figures_[run.run_name.function_name + "/" + name] = counter.value;
    }
    if (isatty(STDERR_FILENO) != 0) fprintf(stderr, "\r%zu figures", figures_.size());
  }
}

int print_table(const Figures& figures) {
  if (isatty(STDERR_FILENO) != 0) fprintf(stderr, "\r");
  int missed = print_evaluations(figures);
  missed += print_growths(figures);
  missed += print_loads(figures);
  print_scales(figures);
  print_forwarding(figures);
  missed += print_bytes(figures);
  return missed;
}

}  // namespace bench
