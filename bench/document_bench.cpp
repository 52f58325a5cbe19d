// SPDX-License-Identifier: Apache-2.0
//
// The forwarding manager's document: putting it together from the XML cache, its envelope with the
// filter by the agent's schema, and asking for the texts of changed objects. Beside each stands what
// copying as many bytes into fresh memory costs, which is the floor: large ones pay for every page that
// they are the first to touch. Over the library's objects, because only the worker fills the cache
// otherwise.
#include <fcntl.h>
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "exchange/pol_xml_config_internal.h"
#include "exchange/pol_yarrow_thread_internal.h"
#include "forward/pol_fwd_ref.h"
#include "policy/policy.h"
#include "tests/support/agent_schema.h"

namespace {

constexpr int kRuns = 7;

[[noreturn]] void die(const char* what) {
  fprintf(stderr, "document_bench: %s\n", what);
  exit(1);
}

// Processor time: what else runs on the machine is not the library's cost.
double cpu_ms() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

template <class Work>
double median_ms(Work work) {
  double times[kRuns];
  for (double& time : times) {
    const double begin = cpu_ms();
    work();
    time = cpu_ms() - begin;
  }
  std::nth_element(times, times + kRuns / 2, times + kRuns);
  return times[kRuns / 2];
}

void cache(int32_t type, const std::string& name, const std::string& text) {
  t_pol_xml_config* config = pol_xml_config_find_or_create(type, name.c_str());
  config->size = static_cast<uint32_t>(text.size());
  config->text = static_cast<char*>(pol_malloc(text.size() + 1, pol::MEM_CONFIG_XML));
  if (config->text == nullptr) die("no memory");
  text.copy(config->text, text.size());
  config->text[text.size()] = '\0';
}

// One data policy of so many sequences, which name the lists in turn.
class Document {
 public:
  Document(int sequences, int lists) {
    const t_pol_callbacks callbacks = {};
    t_pol_ctx* ctx = pol_init(&callbacks);
    if (ctx == nullptr) die("no context");
    uint8_t changed = 0;
    pol_block_find_or_create(ctx, "D", POL_KIND_DATA, &changed);
    pol_fwd_vpn_find_or_create(ctx, "D", POL_KIND_DATA, "v");
    cache(POL_XML_VPN_LIST, "v", "<vpn-list><name>v</name><vpn><id>1</id></vpn></vpn-list>");
    std::string text = "<data-policy><name>D</name><vpn-list><name>v</name>";
    for (int i = 0; i < sequences; ++i) {
      const std::string list = "list-" + std::to_string(i % lists);
      t_pol_entry* entry = pol_fwd_entry_find_or_create(ctx, "D", POL_KIND_DATA, "v", i);
      if (pol::fwd_ref_add(ctx, entry, list.c_str(), &changed, pol::kFwdSrcPfx) == nullptr) {
        die("no list");
      }
      if (i < lists) cache(POL_XML_DATA_PREFIX_LIST, list, list_text(list));
      text += "<sequence><number>" + std::to_string(i) +
              "</number><match><source-data-prefix-list>" + list +
              "</source-data-prefix-list><protocol>6</protocol></match><action>" +
              "<action-value>accept</action-value><count>c</count></action></sequence>";
    }
    cache(POL_XML_DATA_POLICY, "D", text + "</vpn-list>");
    t_pol_registration record = {};
    std::string("fwd").copy(record.user_name, POL_NAME_SIZE - 1);
    std::string("D").copy(record.policy_name, POL_NAME_SIZE - 1);
    record.kind = POL_KIND_DATA;
    record.direction = POL_DIR_IN;
    user_ = pol_register(&record);
  }
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;
  ~Document() { pol_destroy(); }

  // Returns the body's length; `take` is given it.
  template <class Take>
  uint32_t populate(Take take) const {
    uint32_t length = 0;
    char* text = nullptr;
    if (pol_fwd_policy_populate(user_, nullptr, nullptr, nullptr, &length, &text) != POL_OK) {
      die("no document");
    }
    take(text);
    pol_free(text, pol::MEM_PEER_XML);
    return length;
  }

  std::string body() const {
    std::string body;
    populate([&](const char* text) { body = text; });
    return body;
  }

 private:
  static std::string list_text(const std::string& name) {
    std::string text = "<data-prefix-list><name>" + name + "</name>";
    for (int i = 0; i < 20; ++i) {
      text += "<ip-prefix><prefix>10." + std::to_string(i) + ".0.0/16</prefix></ip-prefix>";
    }
    return text + "</data-prefix-list>";
  }

  t_pol_user* user_;
};

struct Figure {
  double ms;
  double floor_ms;  // of copying the bytes; 0 where there are none
};

Figure against_a_copy(double ms, size_t bytes) {
  const std::string text(bytes, 'x');
  double floor_ms = median_ms([&] {
    auto* copy = static_cast<char*>(malloc(bytes));
    if (copy == nullptr) die("no memory");
    text.copy(copy, bytes);
    if (copy[bytes / 2] != 'x') die("no copy");
    free(copy);
  });
  return {ms, floor_ms};
}

Figure populated(int factor) {
  const Document document(1000 * factor, 500 * factor);
  uint32_t length = 0;
  double ms = median_ms([&] { length = document.populate([](const char*) {}); });
  return against_a_copy(ms, length);
}

std::string with_unknown(const std::string& body) {
  std::string made;
  size_t from = 0;
  for (size_t at = 0; (at = body.find("<count>", at)) != std::string::npos; from = at++) {
    made.append(body, from, at - from) += "<new/>";
  }
  return made.append(body, from);
}

// With an element in every sequence that the schema does not know, or with none.
Figure enveloped(int factor, bool unknown) {
  std::string body = Document(1000 * factor, 500 * factor).body();
  if (unknown) body = with_unknown(body);
  auto work = [&] {
    uint32_t length = 0;
    char* text = pol_fwd_policy_hdr_add(body.data(), static_cast<uint32_t>(body.size()), &length);
    if (text == nullptr || (length < body.size()) != unknown) die("no envelope");
    pol_free(text, pol::MEM_SET_XML);
  };
  return against_a_copy(median_ms(work), body.size());
}

// Marks objects, one policer each, and makes requests of the marks; without the worker, which would
// work them off.
Figure queued(int factor) {
  const t_pol_callbacks callbacks = {};
  t_pol_ctx* ctx = pol_init(&callbacks);
  if (ctx == nullptr || pol_yarrow_thread_deinit(&ctx->thread) != POL_OK) die("no context");
  for (auto& lock : ctx->thread.locks) pthread_spin_init(&lock, PTHREAD_PROCESS_PRIVATE);
  ctx->thread.write_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  std::vector<std::string> names;
  for (int i = 0; i < 1000 * factor; ++i) names.push_back("policer-" + std::to_string(i));
  auto work = [&] {
    for (const std::string& name : names) pol_fwd_policer_entry_change(ctx, name.c_str());
    pol_fwd_queue_xml_config(ctx);
    while (t_pol_thread_queue_item* item = ctx->thread.queues[pol::QUEUE_FETCH].front()) {
      pol::thread_unlink(&ctx->thread, pol::QUEUE_FETCH, item);
      pol_free(item, pol::MEM_THREAD_ITEM);
    }
  };
  work();  // makes them
  double ms = median_ms(work);
  close(ctx->thread.write_fd);
  pol_destroy();
  return {ms, 0};
}

template <class Measure>
void print(const char* title, const int (&factors)[3], Measure measure) {
  printf("%-32s", title);
  Figure figures[3];
  for (int i = 0; i < 3; ++i) {
    figures[i] = measure(factors[i]);
    printf(" %8.2f", figures[i].ms);
  }
  for (int i = 1; i < 3; ++i) {
    printf(" %6.1f /%3d", figures[i].ms / figures[i - 1].ms, factors[i] / factors[i - 1]);
  }
  for (const Figure& figure : figures) {
    if (figure.floor_ms > 0) printf(" %6.1f", figure.ms / figure.floor_ms);
  }
  printf("\n");
}

}  // namespace

int main() {
  if (!load_agent_schema()) die("no schema");
  constexpr int kSequences[] = {1, 10, 40};
  constexpr int kObjects[] = {1, 10, 100};
  printf("%-32s %8s %8s %8s %11s %11s %6s %6s %6s\n", "thousand sequences", "1: ms", "10: ms",
         "40: ms", "growth/10", "growth/4", "/copy", "/copy", "/copy");
  print("document from the cache", kSequences, populated);
  print("envelope, all known", kSequences, [](int factor) { return enveloped(factor, false); });
  print("envelope, 1 unknown a sequence", kSequences,
        [](int factor) { return enveloped(factor, true); });
  printf("%-32s %8s %8s %8s %11s %11s\n", "thousand objects", "1: ms", "10: ms", "100: ms",
         "growth/10", "growth/10");
  print("marked and queued", kObjects, queued);
  return 0;
}
