// SPDX-License-Identifier: Apache-2.0
#include "evaluation.h"

#include <exception>
#include <utility>

#include "host/input_error.h"
#include "host/policy_source.h"
#include "host/tloc_resolver.h"
#include "ordered_work.h"
#include "policy/pol_user.h"
#include "route_reader.h"

namespace polctl {

void keep_step(const t_pol_explain_step* step, void* arg) noexcept {
  std::string reason = step->reason != nullptr ? step->reason : "";
  static_cast<Verdict*>(arg)->steps.push_back({*step, std::move(reason)});
}

namespace {

// A membership policy matches on VPNs of services: anything else would be answered by the default
// action, whatever it is.
void require_membership_query(const t_pol_route_query& query, const RouteReader& routes) {
  constexpr const char* kForm = "{\"type\":\"service\",\"vpn\":10}";
  const char* what =
      query.match_type != POL_MATCH_SERVICE
          ? "a membership policy is not asked about routes or TLOCs"
      : query.prefix.addr.family != 0 ? "a membership policy is not asked about prefixes"
      : !routes.has_vpn() ? "a membership policy is asked about a VPN, and there is none"
                          : nullptr;
  if (what != nullptr) throw_at_line(routes.lines(), 0, {1, what, kForm});
}

// Queries that are executed together: as many as share the fastest of the processor's memory.
class Batch {
 public:
  ~Batch() { release(); }
  Batch() = default;
  Batch(const Batch&) = delete;
  Batch& operator=(const Batch&) = delete;

  bool full() const { return count_ == kMost; }

  // Reads the next route. False at the end. Throws InputError; then it has not.
  bool read(RouteReader* routes, uint32_t kind) {
    t_pol_route_query* query = &queries_[count_];
    pol_pre_execute(query, kReleaseVpnArray);
    tlocs_[count_].count = 0;
    tlocs_[count_].ultimate = 0;
    query->tlocs = &tlocs_[count_];
    if (!routes->next(query, &attrs_[count_])) return false;
    if (kind == POL_KIND_MEMBERSHIP) require_membership_query(*query, *routes);
    ++count_;
    return true;
  }

  // Hands the verdicts on what was read to `part`.
  void answer(t_pol_user* user, bool explain, Verdict* verdict, Part* part) {
    if (!explain) pol_explain_batch(user, queries_, count_, decisions_);
    for (uint32_t i = 0; i < count_; ++i) {
      verdict->steps.clear();
      if (explain) pol_explain(user, &queries_[i], keep_step, verdict, &decisions_[i]);
      verdict->query = &queries_[i];
      verdict->decision = decisions_[i];
      verdict->action = decisions_[i].action;
      part->add(*verdict);
      ++verdict->index;
    }
    release();
  }

 private:
  static constexpr uint32_t kMost = 16;

  void release() {
    while (count_ > 0) pol_post_execute(&queries_[--count_]);
  }

  uint32_t count_ = 0;
  t_pol_route_query queries_[kMost];
  t_pol_route_attr attrs_[kMost];
  t_pol_tloc_result tlocs_[kMost];
  t_pol_explain_step decisions_[kMost];
};

}  // namespace

class Evaluation::Job : public OrderedWork::Job {
 public:
  Job(const Evaluation& evaluation, const Run& run, const std::string& name)
      : evaluation_(evaluation), run_(run), name_(name) {}

  void run() noexcept override {
    try {
      part_ = run_.begin();
      answer_all();
    } catch (...) {
      fault_ = std::current_exception();
    }
    piece_.text = {};
  }

  LinePiece* piece() { return &piece_; }
  Part* part() { return part_.get(); }
  const std::exception_ptr& fault() const { return fault_; }

 private:
  // What stands before a fault is answered.
  void answer_all() {
    RouteReader routes(piece_, name_);
    auto batch = std::make_unique<Batch>();
    Verdict verdict;
    verdict.index = piece_.entries_before;
    verdict.direction = evaluation_.direction_;
    std::exception_ptr fault;
    bool more = true;
    while (more) {
      try {
        while (!batch->full() && (more = batch->read(&routes, evaluation_.kind_))) {
        }
      } catch (const InputError&) {
        fault = std::current_exception();
        more = false;
      }
      batch->answer(evaluation_.user_, run_.explain, &verdict, part_.get());
    }
    if (fault) std::rethrow_exception(fault);
  }

  const Evaluation& evaluation_;
  const Run& run_;
  const std::string& name_;
  LinePiece piece_;
  std::unique_ptr<Part> part_;
  std::exception_ptr fault_;
};

Evaluation::Evaluation(const std::string& policy, uint32_t kind, uint32_t direction)
    : kind_(kind), direction_(direction != POL_DIR_NONE ? direction : uint32_t{POL_DIR_IN}) {
  user_ = register_user("polctl", policy, kind, direction_, nullptr, nullptr, resolve_tloc);
}

Evaluation::~Evaluation() { pol_unregister(&user_); }

void Evaluation::run(LinePieces* routes, const Run& run) const {
  OrderedWork work(run.jobs);
  auto take_one = [&] {
    std::unique_ptr<OrderedWork::Job> done = work.take();
    auto* job = static_cast<Job*>(done.get());
    if (job->part() != nullptr) run.take(job->part());
    if (job->fault()) {
      run.out->flush();
      std::rethrow_exception(job->fault());
    }
    run.progress->show(job->piece()->end, routes->size());
  };
  std::exception_ptr fault;
  while (!run.out->gone() && !fault) {
    // A program that asks and waits, or a person who types, gets its answer before the next read.
    if (!work.empty() && (work.full() || !routes->ready())) {
      take_one();
      continue;
    }
    if (!routes->ready()) run.out->flush();
    auto job = std::make_unique<Job>(*this, run, routes->name());
    try {
      if (!routes->next(job->piece())) break;
    } catch (const InputError&) {
      fault = std::current_exception();
      break;
    }
    if (job->piece()->size > 0) work.give(std::move(job));
  }
  while (!work.empty() && !run.out->gone()) take_one();
  if (fault) {
    run.out->flush();
    std::rethrow_exception(fault);
  }
}

}  // namespace polctl
