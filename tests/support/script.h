// SPDX-License-Identifier: Apache-2.0
//
// script.h - calls of the library read from a golden's input, a call a line; after each line stands
// what it answered, whom it told, what it asked of the worker and how the state differs from before.
// Parts, one after a blank line, start with a context of their own; at a part's end every counted
// allocation must be free again. What a line may say is told above the words of script.cpp.
#pragma once

#include <deque>
#include <functional>

#include "support/cfg_values.h"
#include "support/forward_fixture.h"

class ScriptTest : public ForwardTest {
 public:
  // The words of a call, taken one by one, and what they became.
  struct Args {
    ScriptTest* script;
    std::vector<std::string> words;
    size_t next = 1;
    int fail = 0;  // the allocation that fails, from 1
    bool failed = false;
    std::deque<std::string> texts = {};
    std::deque<t_tloc_id> tlocs = {};
    std::deque<t_ipaddr> addresses = {};
    std::deque<t_pol_pfx_record> prefixes = {};

    bool more() const { return next < words.size(); }
    std::string take() { return more() ? words[next++] : "''"; }
    const char* text();
    uint64_t number();
  };

  t_pol_ctx* context() const { return given_; }
  t_pol_block* block_at(const std::string& path);
  t_pol_entry* entry_at(const std::string& path);
  t_pol_user*& user_at(const std::string& name) { return users_[name].handle; }
  uint8_t* changed_flag() { return &changed; }
  t_pol_list_user* outside() { return outside_; }
  t_pol_fwd_user* left() { return left_; }

 protected:
  void SetUp() override;
  void TearDown() override;

  // Compares what <name>.in does with <name>.ok.
  void run(const std::string& name);
  // A line of a golden without the telling.
  void quietly(const std::string& text);

  uint64_t failed_calls = 0;  // with an allocation that failed

 private:
  struct User {
    ScriptTest* script = nullptr;
    t_pol_user* handle = nullptr;
    std::string name;
    std::vector<std::string> then;  // what it does on being told
  };

  void start();
  void end();
  void line(const std::string& text);
  void execute(const std::vector<std::string>& words);
  bool own_word(Args& args);
  bool report(Args& args);
  void registers(Args& args);
  void registers_outside(Args& args);
  void queries(Args& args);
  std::vector<std::string> calls_of(Args& args);
  void crash(const std::vector<std::string>& words);
  void say(const std::string& text) { said_ += "    " + text + "\n"; }
  void graph();
  void say_requests();
  void say_difference();
  std::vector<std::string> state();
  static void was_told(t_pol_user* handle, uint64_t arg);
  static void resolved(uint16_t id, uint32_t ipv4, uint8_t color, uint8_t encap, uint64_t vpn,
                       uint16_t service, t_pol_tloc_result* result);

  std::string said_;
  std::vector<std::string> state_;
  std::map<std::string, User> users_;
  t_pol_list_user* outside_ = nullptr;
  t_pol_fwd_user* left_ = nullptr;
  t_pol_ctx* given_ = nullptr;
};

// The calls that scripts know, by the names of the functions without their "pol_". Each takes its
// words by the types of its parameters; a context and a change flag are not written.
namespace script {

// Answers with the status if it is not 0, or "null" where nothing comes back.
std::string call(ScriptTest::Args& args);

// The names of the calls, each with the kinds of the words that it takes: n a number, s a name, b a
// policy, e a sequence, f a sequence's record, u a user, t a TLOC, a an address, p a prefix.
std::vector<std::pair<std::string, std::string>> known_calls();
std::vector<std::string> known_readers();

// Reports to the reader at its own level, or at the level that is given.
uint32_t report(const std::string& reader, t_pol_ctx* ctx, uint32_t operation, int level,
                const cfg::Keys& keys, uint32_t count, const cfg::Leaves& leaves,
                ScriptTest::Args* args);

// Makes the call with the allocation failing that is to fail.
template <class Call>
auto armed(ScriptTest::Args& args, Call made) {
  if (args.fail == 0) return made();
  seams::Fail fail(args.fail);
  struct Note {
    ScriptTest::Args& args;
    seams::Fail& fail;
    ~Note() { args.failed = fail.hit(); }
  } note = {args, fail};
  return made();
}

// 10.0.0.0/8,operator,min,max
t_pol_pfx_record prefix(const std::string& text);

// address:color:encapsulation
t_tloc_id tloc(const std::string& text);

}  // namespace script
