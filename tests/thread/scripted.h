// SPDX-License-Identifier: Apache-2.0
//
// scripted.h - an agent's client library that does as it is told, in the place of the real one, and
// system calls that fail when told. What was called is kept, and what was opened and not closed.
#pragma once

#include <mutex>
#include <set>
#include <string>

namespace scripted {

constexpr int kError = 7;  // which the script calls "error 7" and explains with "as scripted"

struct State {
  int fail_step = 0;             // the n-th traced call (from 1) fails; 0 for none
  std::string stream;            // what streams deliver
  std::set<std::string> schema;  // the paths that it knows
  int positions = 0;             // that a sequence's TLOC list holds; a label it never has
  int apply_result = 0;          // of the next
  int apply_times = 0;           // calls of maapi_apply_trans
  bool real_waits = false;       // waits end at once unless they are real
  int waits = 0;                 // that were asked for
  std::string trace = " ";  // calls of the client library, socket, recv, fopen; a blank behind each
  std::string objects;      // values written: types of a TLOC's, or a label; a line each
  std::string paths;        // all that were given, a line each
  int open = 0;             // transactions, sessions and the like that were not closed
  int bad_closes = 0;       // of descriptors that were none

  int step = 0;
  std::string fail_name;
  int fail_skip = 0;
  int fail_times = 0;
  std::string held;
  int held_skip = 0;
  bool reached = false;
};

// The state, which stays locked to the end of the statement.
struct Locked {
  std::unique_lock<std::recursive_mutex> hold;
  State* state;
  State* operator->() const { return state; }
};
Locked state();

// Forgets all faults, calls and answers.
void reset();

// Of the calls of this name the first `skip` succeed and the next `times` fail. One such fault at a
// time. Also of calls that are not traced: pipe, fcntl, write, event_base_new, event_new, event_add,
// pthread_spin_init, _lock, _unlock and _destroy.
void fail_call(const char* name, int skip, int times);

int calls(const std::string& name);  // that were traced

// After `skip` calls of this name, which is a traced one or the worker's pthread_spin_unlock, one does
// not return before release().
void hold(const char* name, int skip = 0);
void wait_until_held();
void release();

int occurrences(const std::string& text, const std::string& part);
int descriptors();  // of this process

}  // namespace scripted
