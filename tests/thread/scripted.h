// SPDX-License-Identifier: Apache-2.0
//
// scripted.h - an agent's client library that does as it is told, in the place of the real one, and
// system calls that fail when told. What was called is kept, and what was opened and not closed.
#pragma once

#include <string>

namespace scripted {

constexpr int kError = 7;  // which the script calls "error 7" and explains with "as scripted"

// Forgets all faults, calls and answers.
void reset();

// The n-th traced call (from 1) fails; 0 for none.
void fail_step(int step);
// Of the calls of this name the first `skip` succeed and the next `times` fail. One such fault at a
// time. Also of calls that are not traced: pipe, fcntl, write, event_base_new, event_new, event_add,
// pthread_spin_init, _lock, _unlock and _destroy.
void fail_call(const char* name, int skip, int times, int error = kError);

// The client library's calls and socket, recv and fopen, by name, each with a blank behind it.
std::string trace();
int calls(const std::string& name);

// The waits asked for, which end at once unless they are real.
int waits();
void wait_really();

// What streams deliver, and the positions that a sequence's TLOC list holds.
void set_stream(const std::string& text);
void set_positions(int count);
// What maapi_apply_trans answers for the next `times` calls.
void answer_apply(int result, int times);

// A call of this name does not return before release().
void hold(const char* name);
void wait_until_held();
void release();

// The last values written as a TLOC with `set_object`, and all paths that were given, a line each.
std::string objects();
std::string paths();

// Transactions, sessions and the like that were opened and not closed.
int open_handles();
// Descriptors of this process, and closes of what was none.
int descriptors();
int bad_closes();

}  // namespace scripted
