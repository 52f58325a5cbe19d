// SPDX-License-Identifier: Apache-2.0
#include "line_editor.h"

#include <histedit.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>

#include "host/address_text.h"
#include "host/input_error.h"
#include "tool/terminal.h"

namespace polctl {

namespace {

constexpr int kHistory = 1000;

volatile sig_atomic_t g_interrupted = 0;

void note_interrupt(int /*signal*/) { g_interrupted = 1; }

std::string history_file() {
  const char* home = getenv("HOME");
  return home != nullptr && *home == '/' ? std::string(home) + "/.polctl_history" : "";
}

std::string common_beginning(const std::vector<Candidate>& found) {
  std::string common;
  bool first = true;
  for (const Candidate& each : found) {
    if (each.word.starts_with('<')) continue;
    if (first) common = each.word;
    first = false;
    size_t same = 0;
    while (same < std::min(common.size(), each.word.size()) && common[same] == each.word[same])
      ++same;
    common.resize(same);
  }
  return common;
}

}  // namespace

struct LineEditor::State {
  Complete complete;
  EditLine* editor = nullptr;
  History* history = nullptr;
  std::string prompt;

  /* The words before the cursor and the one that it stands in; false inside a quote. */
  bool at_cursor(Words* before, std::string* last) const;
  void tell(const std::vector<Candidate>& found) const;
  unsigned char on_tab();
  unsigned char on_question();
};

bool LineEditor::State::at_cursor(Words* before, std::string* last) const {
  const LineInfo* info = el_line(editor);
  std::string text(info->buffer, info->cursor);
  try {
    *before = split_words(text);
  } catch (const LineFaultError&) {
    return false;
  }
  last->clear();
  bool in_word = !text.empty() && text.back() != ' ' && text.back() != '\t';
  if (in_word && !before->empty()) {
    *last = text.substr(before->back().column - 1);
    before->pop_back();
  }
  return true;
}

void LineEditor::State::tell(const std::vector<Candidate>& found) const {
  size_t width = 0;
  for (const Candidate& each : found) width = std::max(width, each.word.size());
  std::string text = "\n";
  for (const Candidate& each : found) {
    text += "  " + printable(each.word);
    if (!each.help.empty()) text += std::string(width - each.word.size() + 2, ' ') + each.help;
    text += "\n";
  }
  if (found.empty()) text += "  <the end of the line>\n";
  fputs(text.c_str(), stdout);
  fflush(stdout);
}

// Nothing may pass through libedit: what goes wrong here (the agent has gone) the next command tells.
unsigned char LineEditor::State::on_tab() {
  try {
    Words before;
    std::string last;
    if (!at_cursor(&before, &last)) return CC_REFRESH_BEEP;
    std::vector<Candidate> found = complete(before, last);
    std::string common = common_beginning(found);
    bool only = found.size() == 1 && !found[0].word.starts_with('<');
    if (common.size() > last.size() || only) {
      std::string more = common.substr(std::min(last.size(), common.size())) + (only ? " " : "");
      if (el_insertstr(editor, more.c_str()) != 0) return CC_REFRESH_BEEP;
      return CC_REFRESH;
    }
    tell(found);
    return CC_REDISPLAY;
  } catch (const std::exception&) {
    return CC_REFRESH_BEEP;
  }
}

unsigned char LineEditor::State::on_question() {
  try {
    Words before;
    std::string last;
    if (!at_cursor(&before, &last)) {
      return el_insertstr(editor, "?") == 0 ? CC_REFRESH : CC_REFRESH_BEEP;
    }
    tell(complete(before, last));
    return CC_REDISPLAY;
  } catch (const std::exception&) {
    return CC_REFRESH_BEEP;
  }
}

LineEditor::LineEditor(Complete complete) : state_(std::make_unique<State>()) {
  setlocale(LC_CTYPE, "");
  State& state = *state_;
  state.complete = std::move(complete);
  state.editor = el_init("polctl", stdin, stdout, stderr);
  state.history = history_init();
  if (state.editor == nullptr || state.history == nullptr) {
    throw InputError("polctl: error: the terminal cannot be set up (expected one)");
  }
  EditLine* editor = state.editor;
  el_set(editor, EL_CLIENTDATA, &state);
  auto prompt = [](EditLine* asked) {
    State* own = nullptr;
    el_get(asked, EL_CLIENTDATA, &own);
    return own->prompt.data();
  };
  el_set(editor, EL_PROMPT, static_cast<char* (*)(EditLine*)>(prompt));
  el_set(editor, EL_EDITOR, "emacs");
  el_set(editor, EL_SIGNAL, 0);
  using Act = unsigned char (*)(EditLine*, int);
  Act on_tab = [](EditLine* asked, int) {
    State* own = nullptr;
    el_get(asked, EL_CLIENTDATA, &own);
    return own->on_tab();
  };
  Act on_question = [](EditLine* asked, int) {
    State* own = nullptr;
    el_get(asked, EL_CLIENTDATA, &own);
    return own->on_question();
  };
  el_set(editor, EL_ADDFN, "complete-word", "complete the word", on_tab);
  el_set(editor, EL_ADDFN, "tell-words", "tell what may come next", on_question);
  el_set(editor, EL_BIND, "^I", "complete-word", nullptr);
  el_set(editor, EL_BIND, "?", "tell-words", nullptr);
  el_set(editor, EL_BIND, "^R", "em-inc-search-prev", nullptr);
  HistEvent event;
  history(state.history, &event, H_SETSIZE, kHistory);
  history(state.history, &event, H_SETUNIQUE, 1);
  el_set(editor, EL_HIST, history, state.history);
  if (std::string file = history_file(); !file.empty()) {
    history(state.history, &event, H_LOAD, file.c_str());
  }
}

LineEditor::~LineEditor() {
  HistEvent event;
  if (std::string file = history_file(); !file.empty()) {
    mode_t before = umask(0077);
    history(state_->history, &event, H_SAVE, file.c_str());
    umask(before);
  }
  history_end(state_->history);
  el_end(state_->editor);
}

std::optional<std::string> LineEditor::next(const std::string& prompt) {
  State& state = *state_;
  size_t last = prompt.rfind('\n');
  if (last != std::string::npos) {
    fputs(printable_lines(prompt.substr(0, last + 1)).c_str(), stdout);
    fflush(stdout);
  }
  state.prompt = last != std::string::npos ? prompt.substr(last + 1) : prompt;
  g_interrupted = 0;
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = note_interrupt;  // without SA_RESTART: reading ends
  sigaction(SIGINT, &action, &before);
  int count = 0;
  const char* text = el_gets(state.editor, &count);
  sigaction(SIGINT, &before, nullptr);
  if (g_interrupted != 0) {
    el_reset(state.editor);
    fputs("^C\n", stdout);
    return "";
  }
  if (text == nullptr || count <= 0) {
    fputs("\n", stdout);
    return {};
  }
  std::string line(text, static_cast<size_t>(count));
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  HistEvent event;
  if (line.find_first_not_of(" \t") != std::string::npos) {
    history(state.history, &event, H_ENTER, line.c_str());
  }
  return line;
}

}  // namespace polctl
