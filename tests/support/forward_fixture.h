// SPDX-License-Identifier: Apache-2.0
//
// forward_fixture.h - a data policy "p" with the VPN list "v" and a user, a host that knows labels,
// and the worker's queues without a worker.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <sstream>

#include "base/pol_memory.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "kel/tloc.h"
#include "support/policy_fixture.h"
#include "support/seams.h"

class ForwardTest : public PolicyTest {
 public:
  using Result = t_pol_tloc_result_entry;

  static Result result(const t_tloc_id& tloc, uint32_t label, uint32_t preference = 0) {
    Result row = {};
    row.tloc = tloc;
    row.label = label;
    row.preference = preference;
    return row;
  }

 protected:
  // What the resolution callback answers, and what it was asked.
  struct Host {
    std::map<uint32_t, uint32_t> labels;  // of TLOCs, by IPv4 address
    std::vector<Result> service;
    uint32_t extra_count = 0;  // claimed beyond `service`
    bool silent = false;       // writes nothing at all
    uint32_t service_label = 0;
    t_tloc_id service_tloc = {};
    std::vector<std::string> asked;
  };

  void SetUp() override {
    PolicyTest::SetUp();
    replace_worker();
    host_ = &host;
    ctx->resolve_service = resolve;
    add_user("u", "p", &calls, POL_DIR_OUT, POL_KIND_DATA);
    pol_fwd_vpn_find_or_create(ctx, "p", POL_KIND_DATA, "v");
    take_queued();
  }

  void TearDown() override {
    drop_worker();
    PolicyTest::TearDown();
  }

  void drop_worker() {
    take_requests();
    close(ctx->thread.read_fd);
    close(ctx->thread.write_fd);
    for (auto& lock : ctx->thread.locks) pthread_spin_destroy(&lock);
  }

  t_pol_entry* sequence(uint32_t number, const char* policy = "p") {
    return pol_fwd_entry_find_or_create(ctx, policy, POL_KIND_DATA, "v",
                                        static_cast<int32_t>(number));
  }

  t_pol_entry* find(uint32_t number) {
    return block("p", POL_KIND_DATA)->fwd_vpns.first()->entries.find(&number);
  }

  void set_vpn(uint32_t number, uint64_t vpn) {
    pol_fwd_entry_vpn_upd(ctx, "p", POL_KIND_DATA, "v", number, vpn);
  }
  void set_tloc(uint32_t number, const t_tloc_id& tloc, uint8_t encap_given = 1) {
    pol_fwd_entry_tloc_upd(ctx, "p", POL_KIND_DATA, "v", number, encap_given, &tloc);
  }
  void remove_tloc(uint32_t number) {
    pol_fwd_entry_tloc_upd(ctx, "p", POL_KIND_DATA, "v", number, 0, nullptr);
  }
  void set_list(uint32_t number, const char* name) {
    pol_fwd_entry_tloc_list_upd(ctx, "p", POL_KIND_DATA, "v", number, name);
  }
  void set_service(uint32_t number, uint16_t service, uint8_t local = 0) {
    pol_fwd_entry_svc_upd(ctx, "p", POL_KIND_DATA, "v", number, service, local, 0);
  }
  void list_tloc(const char* name, const t_tloc_id& tloc, uint32_t preference = 0) {
    pol_tloc_list_add_entry(ctx, name, &tloc, preference);
  }

  static std::string printed_tloc(const t_tloc_id& tloc) {
    char buffer[128];
    return tloc_id_print_short(&tloc, buffer, sizeof buffer);
  }

  // The TLOCs that a sequence resolved to, as "address:color:encapsulation=label/preference ".
  std::string tlocs(uint32_t number) {
    std::ostringstream out;
    for (const t_tloc_entry& record : find(number)->fwd.tlocs) {
      out << printed_tloc(record.tloc) << "=" << record.label << "/" << record.preference << " ";
    }
    return out.str();
  }

  struct Request {
    unsigned queue;
    t_pol_thread_queue_item item;
    t_pol_label_set labels;  // of the first queue's
  };
  std::vector<Request> take_requests() {
    std::vector<Request> taken;
    for (unsigned queue = 0; queue < pol::QUEUES; ++queue) {
      while (t_pol_thread_queue_item* item = ctx->thread.queues[queue].front()) {
        taken.push_back({queue, *item, {}});
        if (queue == pol::QUEUE_LABEL_SET) {
          taken.back().labels = reinterpret_cast<t_pol_label_item*>(item)->label_set;
        }
        pol::thread_unlink(&ctx->thread, queue, item);
        pol_free(item, pol::MEM_THREAD_ITEM);
      }
    }
    return taken;
  }

  Host host;
  Calls calls;

  // The real one would work the requests away.
  void replace_worker() {
    t_pol_yarrow_thread& thread = ctx->thread;
    ASSERT_EQ(pol_yarrow_thread_deinit(&thread), uint32_t{POL_OK});
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    thread.read_fd = ends[0];
    thread.write_fd = ends[1];
    for (auto& lock : thread.locks) pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE);
  }

  static void set_host(Host* host) { host_ = host; }

  static uint32_t resolve(uint32_t one, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t vpn,
                          uint16_t service, uint8_t local, uint32_t* label, t_tloc_id* tloc,
                          t_pol_service_result* result, uint32_t zero) {
    EXPECT_EQ(std::pair(one, zero), std::pair(1u, 0u));
    std::ostringstream asked;
    asked << ipv4 << ":" << int{color} << ":" << int{encap} << " " << printed_tloc(*tloc) << " vpn "
          << vpn << " service " << service << (local != 0 ? " local" : "");
    host_->asked.push_back(asked.str());
    if (host_->silent) return 0;
    const bool for_service = ipv4 == 0 && color == 0 && encap == 0;
    result->count = 0;
    if (!for_service) {
      auto known = host_->labels.find(ipv4);
      if (known != host_->labels.end()) *label = known->second;
      return 7;
    }
    if (host_->service_label != 0) {
      *label = host_->service_label;
      *tloc = host_->service_tloc;
    }
    for (const Result& row : host_->service) result->entry[result->count++] = row;
    result->count += host_->extra_count;
    return 0;
  }

 private:
  static inline Host* host_ = nullptr;
};
