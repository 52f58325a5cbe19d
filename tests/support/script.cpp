// SPDX-License-Identifier: Apache-2.0
#include "support/script.h"

#include <sys/wait.h>

#include <csignal>
#include <regex>

#include "forward/pol_fwd_block_internal.h"
#include "forward/pol_fwd_ref.h"
#include "support/golden.h"

namespace {

using Words = std::vector<std::string>;

Words words_of(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

// The leaves of reports, each with its tag.
constexpr char kTags[] =
    "default-action 7037c488 vpn 4d7d11c2 tloc-list 72d28bfe tloc 33c074ce "
    "address 61fa2cdb color 2b503622 encap 5a62686b service 32fc12e6 type 6ccfcce4 "
    "action 0369ffb7 tag 0c2c7467 preference 176ecfd3 domain 1beabc63 vpn-list 6aebf6e6 "
    "site 59a72353 site-list 6d6fa00b group 7ce0369b color-list 3129eae5 "
    "originator 470748d8 carrier 4ef9605a prefix-list 5dc389d2 tloc-action 4a63a685 "
    "origin 775cf168 sla-class 1fc19c53 strict 5c327362 colors 6464ce5d saas 07441945 "
    "app-list 542ece51 dns 5a06eb58 source 32d6e4cb destination 4db8ee1a "
    "source6 5754b118 destination6 71567138 policer 58e2217b local 7ef235bf "
    "exact 0308c88e min 0c7fba2e max 10ae453c ";

uint32_t tag_of(const std::string& leaf) {
  std::istringstream tags(kTags);
  uint32_t tag = 0;
  for (std::string name; tags >> name >> std::hex >> tag;) {
    if (name == leaf) return tag;
  }
  ADD_FAILURE() << "no such leaf: " << leaf;
  return 0;
}

const std::map<std::string, uint32_t> kOperations = {{"created", POL_CFG_CREATED},
                                                     {"deleted", POL_CFG_DELETED},
                                                     {"modified", POL_CFG_MODIFIED},
                                                     {"set", POL_CFG_VALUE_SET}};

uint32_t address4(const std::string& text) {
  uint32_t address = 0;
  inet_pton(AF_INET, text.c_str(), &address);
  return ntohl(address);
}

// A value of a report by its type: 32:7, word:3, ip:10.0.0.1, net:10.0.0.0/8, [:word:1,word:2, and
// a text where no type is named.
pol_cfg_value value_of(const std::string& text, std::deque<std::string>* texts,
                       std::deque<std::vector<pol_cfg_value>>* lists) {
  if (text == "gone") return cfg::none();
  if (text == "given") return cfg::none(C_XMLTAG);
  if (text == "{") return cfg::none(C_XMLBEGIN);
  if (text == "}") return cfg::none(C_XMLEND);
  const size_t colon = text.find(':');
  const std::string type = text.substr(0, colon);
  const std::string rest = colon != text.npos ? text.substr(colon + 1) : "";
  if (type == "[") {
    std::vector<pol_cfg_value> values;
    std::istringstream parts(rest);
    for (std::string part; std::getline(parts, part, ',');) {
      values.push_back(value_of(part, texts, lists));
    }
    lists->push_back(values);
    pol_cfg_value value = cfg::none(C_LIST);
    value.val.list.size = static_cast<uint32_t>(values.size());
    value.val.list.ptr = lists->back().data();
    return value;
  }
  const auto number = static_cast<uint32_t>(strtoul(rest.c_str(), nullptr, 0));
  if (type == "8") return cfg::u8(static_cast<uint8_t>(number));
  if (type == "16") return cfg::u16(static_cast<uint16_t>(number));
  if (type == "32") return cfg::u32(number);
  if (type == "word") return cfg::word(number);
  if (type == "bool")
    return cfg::scalar(C_BOOL, &cfg::Val::boolean, decltype(cfg::Val::boolean)(number));
  if (type == "ip") return cfg::ipv4(address4(rest));
  if (type == "net") {
    return cfg::ipv4_prefix(address4(rest.substr(0, rest.find('/'))),
                            static_cast<uint8_t>(atoi(rest.c_str() + rest.find('/') + 1)));
  }
  texts->push_back(text);
  return cfg::text(texts->back().c_str());
}

}  // namespace

// A word, - for null, '' for nothing, n*70x for seventy times n and an x.
const char* ScriptTest::Args::text() {
  std::string word = take();
  if (word == "-") return nullptr;
  if (word == "''") word.clear();
  if (word.size() > 2 && word[1] == '*') {
    char* rest = nullptr;
    const size_t count = strtoul(word.c_str() + 2, &rest, 10);
    word = std::string(count, word[0]) + rest;
  }
  texts.push_back(word);
  return texts.back().c_str();
}

uint64_t ScriptTest::Args::number() {
  static const std::map<std::string, uint64_t> kWords = {
      {"route", POL_KIND_ROUTE},        {"data", POL_KIND_DATA},    {"app", POL_KIND_PERF_ROUTE},
      {"members", POL_KIND_MEMBERSHIP}, {"flows", POL_KIND_CFLOWD}, {"accept", POL_ACCEPT},
      {"reject", POL_REJECT},           {"in", POL_DIR_IN},         {"out", POL_DIR_OUT}};
  const std::string word = take();
  auto known = kWords.find(word);
  return known != kWords.end() ? known->second : strtoull(word.c_str(), nullptr, 0);
}

// p, or data:p among several of one name.
t_pol_block* ScriptTest::block_at(const std::string& path) {
  const size_t colon = path.find(':');
  Args args = {this, {path.substr(0, colon)}, 0};
  const uint64_t only = colon != path.npos ? args.number() : 0;
  for (uint32_t kind = POL_KIND_ROUTE; kind <= POL_KIND_CFLOWD; ++kind) {
    if (only != 0 && only != kind) continue;
    const std::string name = path.substr(colon != path.npos ? colon + 1 : 0);
    if (t_pol_block* found = pol_block_find(ctx, name.c_str(), kind, nullptr)) return found;
  }
  return nullptr;
}

// p/10, p/v/10 below a VPN list, or p/default.
t_pol_entry* ScriptTest::entry_at(const std::string& path) {
  const size_t slash = path.find('/');
  const size_t last = path.rfind('/');
  t_pol_block* policy = block_at(path.substr(0, slash));
  if (policy == nullptr || slash == path.npos) return nullptr;
  const auto number = static_cast<uint32_t>(strtoul(path.c_str() + last + 1, nullptr, 10));
  if (path.substr(last) == "/default") return &policy->default_action;
  if (slash == last) return pol_entry_find(ctx, policy, number, nullptr);
  const std::string vpn = path.substr(slash + 1, last - slash - 1);
  return pol::fwd_find(ctx, policy->name, policy->kind, vpn.c_str(), number).entry;
}

void ScriptTest::SetUp() {
  PolicyTest::SetUp();
  start();
}

void ScriptTest::TearDown() {
  end();
  init();
  PolicyTest::TearDown();
}

void ScriptTest::start() {
  replace_worker();
  host = {};
  set_host(&host);
  ctx->resolve_service = resolve;
  seams::take_log();
  state_ = state();
}

void ScriptTest::end() {
  drop_worker();
  pol_destroy();
  pol_debug_set(0);
  users_.clear();
  for (size_t i = 0; i < POL_MEM_TYPES; ++i) EXPECT_EQ(current(i), 0u) << "memory type " << i;
}

void ScriptTest::run(const std::string& name) {
  std::string all;
  for_each_part(name + ".in", [&](const std::string& part) {
    end();
    init();
    start();
    std::istringstream lines(part);
    SCOPED_TRACE(part.substr(0, part.find('\n')));
    for (std::string text; std::getline(lines, text);) {
      all += text + "\n";
      if (text[0] == '#') continue;
      line(text);
      all += said_;
    }
    all += "\n";
  });
  expect_golden(name + ".ok", all);
}

void ScriptTest::line(const std::string& text) {
  said_.clear();
  execute(words_of(text));
  std::string log = std::regex_replace(
      seams::take_log(), std::regex("(^|\n)\\d+ (\\w+)\\[\\d+\\]: (\\[POL\\] )?"), "$1log $2: ");
  std::istringstream logged(log);
  for (std::string one; std::getline(logged, one);) say(one);
  for (const std::string& asked : host.asked) say("asked " + asked);
  host.asked.clear();
  say_requests();
  say_difference();
}

void ScriptTest::quietly(const std::string& text) {
  execute(words_of(text));
  take_requests();
  host.asked.clear();
}

void ScriptTest::say_requests() {
  for (uint32_t kind = POL_KIND_ROUTE; kind <= POL_KIND_CFLOWD; ++kind) {
    for (t_pol_block* b = pol_block_first(ctx, kind); b != nullptr;
         b = pol_block_next(ctx, b, kind)) {
      if (std::exchange(b->fetch_xml, 0) != 0) say(std::string("to be fetched: ") + b->name);
    }
  }
  for (const Request& request : take_requests()) {
    const t_pol_thread_queue_item& item = request.item;
    std::ostringstream out;
    if (request.queue == pol::QUEUE_LABEL_SET) {
      const t_pol_label_set& labels = request.labels;
      out << "label " << labels.policy << "/" << labels.vpn_list << "/" << labels.sequence << "@"
          << labels.vpn_label << ":";
      for (uint32_t i = 0; i < labels.count; ++i) {
        const auto& row = labels.tlocs[i];
        out << " " << printed_tloc(row.tloc) << "=" << row.label;
      }
    } else {
      out << (request.queue == pol::QUEUE_LABEL_FETCH ? "then fetch " : "fetch ") << item.type
          << " " << item.name;
    }
    say(out.str());
  }
}

// Before a call: `without` passes no context, `fail N T` lets the N-th allocation fail, which was
// counted as type T, `crash` runs it in a process of its own and tells how that ends.
void ScriptTest::execute(const Words& words) {
  if (words[0] == "crash") return crash({words.begin() + 1, words.end()});
  Args args = {this, words};
  given_ = ctx;
  auto drop = [&args](long count) {
    args.words.erase(args.words.begin(), args.words.begin() + count);
  };
  if (args.words[0] == "without") {
    given_ = nullptr;
    drop(1);
  }
  size_t type = 0;
  if (args.words[0] == "fail") {
    args.fail = atoi(args.words[1].c_str());
    type = strtoul(args.words[2].c_str(), nullptr, 10);
    drop(3);
  }
  changed = 0;
  if (!own_word(args)) {
    const std::string answer = script::call(args);
    if (!answer.empty()) say(answer);
  }
  if (changed != 0) say("changed");
  if (args.fail != 0 && !args.failed) say("did not fail");
  if (args.failed) ++failed_calls;
  if (args.failed && type != 0) ++g_pol_mem_info[type].frees;
}

// Words of scripts' own: `sequence p 10` makes one that matches routes and accepts them; `register
// name policy kind direction : call ; call` does those on being told; `host` is what labels are
// asked of: TLOC=label, or service TLOC=label/preference; `hold` keeps the record of a sequence,
// which calls take for `left`; `outside list type : call ; call` registers outside of policies.
bool ScriptTest::own_word(Args& args) {
  const std::string& word = args.words[0];
  if (word == "sequence") {
    const std::string policy = args.take();
    entry(block(policy.c_str()), static_cast<uint32_t>(args.number()));
    take_queued();
    changed = 0;
  } else if (word == "register") {
    registers(args);
  } else if (word == "unregister") {
    pol_unregister(&user_at(args.take()));
  } else if (word == "graph") {
    graph();
  } else if (word == "outside") {
    registers_outside(args);
  } else if (word == "nobody_outside") {
    pol_list_unregister(std::exchange(outside_, nullptr));
  } else if (word == "query") {
    queries(args);
  } else if (word == "hold") {
    left_ = entry_at(args.take())->fwd.user;
  } else if (word == "debug") {
    pol_debug_set(static_cast<uint32_t>(args.number()));
  } else if (word == "host") {
    host.labels.clear(), host.service.clear();
    while (args.more()) {
      const std::string row = args.take();
      const size_t equal = row.find('=');
      const auto label =
          static_cast<uint32_t>(atoi(row.c_str() + (equal == row.npos ? 0 : equal + 1)));
      const size_t slash = row.find('/');
      if (slash == row.npos) {
        host.labels[address4(row.substr(0, equal))] = label;
      } else {
        host.service.push_back(result(script::tloc(row.substr(0, equal)), label,
                                      static_cast<uint32_t>(atoi(row.c_str() + slash + 1))));
      }
    }
  } else {
    return report(args);
  }
  return true;
}

void ScriptTest::registers(Args& args) {
  const std::string name = args.take();
  User& user = users_[name];
  user = {this, nullptr, name, {}};
  t_pol_registration record = {};
  snprintf(record.user_name, sizeof record.user_name, "%s", name.c_str());
  snprintf(record.policy_name, sizeof record.policy_name, "%s", args.text());
  record.kind = static_cast<uint32_t>(args.number());
  record.direction = static_cast<uint32_t>(args.number());
  record.change = was_told;
  record.user_arg = reinterpret_cast<uint64_t>(&user);
  record.resolve = resolved;
  user.then = calls_of(args);
  user.handle = pol_register(&record);
  if (user.handle == nullptr) say("null");
}

// What is left of a line that a colon goes before: calls, semicolons between them.
std::vector<std::string> ScriptTest::calls_of(Args& args) {
  std::vector<std::string> calls;
  std::string then;
  for (args.take(); args.more();) {
    const std::string word = args.take();
    if (word != ";") then += word + " ";
    if (word != ";" && args.more()) continue;
    calls.push_back(then);
    then.clear();
  }
  return calls;
}

void ScriptTest::registers_outside(Args& args) {
  t_pol_list_registration record = {};
  snprintf(record.name, sizeof record.name, "%s", args.text());
  record.list_type = static_cast<uint32_t>(args.number());
  User user = {this, nullptr, "outside", calls_of(args)};
  if (outside_ == nullptr) users_["outside"] = user;
  record.change = [](t_pol_list_user*, void* arg) {
    was_told(nullptr, reinterpret_cast<uint64_t>(arg));
  };
  record.arg = &users_["outside"];
  t_pol_list_user* made = script::armed(args, [&record] { return pol_list_register(&record); });
  if (made == nullptr) return say("null");
  if (made == outside_) say("there already");
  outside_ = made;
}

void ScriptTest::was_told(t_pol_user* /*handle*/, uint64_t arg) {
  auto& user = *reinterpret_cast<User*>(arg);
  ScriptTest& script = *user.script;
  script.say("told " + user.name);
  const Words then = user.then;
  for (const std::string& call : then) {
    const uint8_t outer = std::exchange(script.changed, 0);
    script.execute(words_of(call));
    script.changed = outer;
  }
}

// `report <reader> <operation> key... : leaf=value...`; +N before the keys counts N leaves more.
bool ScriptTest::report(Args& args) {
  if (args.words[0] != "report") return false;
  const std::string reader = args.take();
  const uint32_t operation = kOperations.at(args.take());
  std::deque<std::string> texts;
  std::deque<std::vector<pol_cfg_value>> lists;
  cfg::Keys keys;
  cfg::Leaves leaves;
  uint32_t more = 0;
  int level = -1;
  bool in_leaves = false;
  while (args.more()) {
    const std::string word = args.take();
    const size_t equal = word.find('=');
    if (word == ":") {
      in_leaves = true;
    } else if (word[0] == '+') {
      more = static_cast<uint32_t>(strtoul(word.c_str() + 1, nullptr, 0));
    } else if (word[0] == '@') {
      level = atoi(word.c_str() + 1);
    } else if (in_leaves) {
      leaves.push_back(cfg::leaf(tag_of(word.substr(0, equal)),
                                 value_of(word.substr(equal + 1), &texts, &lists)));
    } else {
      keys.push_back(value_of(word, &texts, &lists));
    }
  }
  const uint32_t status =
      script::report(reader, ctx, operation, level, keys,
                     static_cast<uint32_t>(leaves.size()) + more, leaves, &args);
  if (status != 0) say("status " + std::to_string(static_cast<int32_t>(status)));
  return true;
}

// Tells what the process wrote and logged last, without what differs from build to build.
void ScriptTest::crash(const Words& words) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    dup2(ends[1], 2);
    for (int sent : {SIGSEGV, SIGABRT}) {
      signal(sent, [](int number) {
        fputs(seams::take_log().c_str(), stderr);
        signal(number, SIG_DFL);
        raise(number);
      });
    }
    execute(words);
    _exit(0);
  }
  close(ends[1]);
  std::string text;
  char part[512];
  for (ssize_t got = 0; (got = read(ends[0], part, sizeof part)) > 0;) {
    text.append(part, static_cast<size_t>(got));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  text = std::regex_replace(text, std::regex("[^\n]*Assertion `([^\n]*)' failed.\n"), "$1\n");
  text = std::regex_replace(text, std::regex("(^|\n)(\\d+ )?(\\w+)\\[\\d+\\]: (\\[POL\\] )?"),
                            "$1$3: ");
  std::istringstream lines(text);
  std::string last;  // a broken invariant is told on stderr and in the log
  for (std::string one; std::getline(lines, one); last = one) {
    if (one != last) say(one);
  }
  say(WIFSIGNALED(status) ? std::string("ends by ") + strsignal(WTERMSIG(status)) : "goes on");
}
