// SPDX-License-Identifier: Apache-2.0
//
// polctl convert. Whatever comes in goes through an agent of the tool's own, so that what goes out was
// found sound and stands in one order.
#include <fmt/format.h>

#include <optional>

#include "host/agent_link.h"
#include "host/input_error.h"
#include "host/setlines/config_lines.h"
#include "host/setlines/set_document.h"
#include "host/xml_places.h"
#include "policy/pol_test.h"
#include "policy_text.h"
#include "tool/commands.h"

namespace polctl {

namespace {

// As FindingWriter has them: without a path of configuration, which here nobody wrote.
ConfigFault fault_at(const std::string& file, uint32_t line, const LineFault& fault) {
  return {file, line, static_cast<uint32_t>(fault.column), "", fault.what, fault.expected};
}

// Nothing may pass through the library that calls this.
void note_error(const t_pol_test_finding* finding, void* arg) noexcept {
  if (finding->severity != POL_TEST_ERROR) return;
  auto* first = static_cast<std::optional<ConfigFault>*>(arg);
  if (*first) return;
  *first = ConfigFault{"", finding->line, finding->column,
                       "", finding->what, finding->expected != nullptr ? finding->expected : ""};
}

// A policy file as set-lines, and for each of them the line that it comes from.
std::string lines_of_policy(const SourceFile& file, std::vector<uint32_t>* from) {
  std::optional<ConfigFault> error;
  pol_test_check_file(file.path().c_str(), note_error, &error);
  if (error) {
    error->file = file.name();
    throw_faults({*error});
  }
  std::string content = read_whole(file.path(), kMaxSourceBytes, "a policy file");
  std::string text;
  std::vector<ConfigFault> faults;
  FromPolicyText reader;
  std::string_view rest = content;
  for (uint32_t number = 1; !rest.empty(); ++number) {
    std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(rest.size(), line.size() + 1));
    try {
      for (const std::string& each : reader.set_lines(line)) {
        text += each + "\n";
        from->push_back(number);
      }
    } catch (const LineFaultError& refused) {
      faults.push_back(fault_at(file.name(), number, refused.fault));
    }
  }
  if (!faults.empty()) throw_faults(faults);
  return text;
}

// What the file holds as the agent has it.
std::string sound_xml(const SourceFile& file) {
  std::vector<uint32_t> from;
  std::optional<MemoryFile> made;
  SourceFiles files = {file};
  if (file.kind() == SourceKind::kPolicyFile) made.emplace(lines_of_policy(file, &from));
  if (file.kind() == SourceKind::kJson) made.emplace(config_from_json(file));
  // What is empty converts into what is empty.
  if (file.kind() == SourceKind::kPolicyFile && from.empty()) return "";
  if (made) files = {SourceFile(made->path(), "configuration")};
  EmbeddedAgent agent;
  ConfigSession session(agent.port());
  std::vector<ConfigFault> faults;
  session.load(files, &faults);
  if (faults.empty()) session.commit(files, &faults);
  for (ConfigFault& fault : faults) {
    if (!made) continue;
    // Where the policy file has it; of JSON no places are known.
    bool known = fault.line > 0 && fault.line <= from.size();
    fault.file = file.name();
    fault.line = known ? from[fault.line - 1] : 0;
    fault.column = 0;
  }
  if (!faults.empty()) throw_faults(faults);
  return session.save("/");
}

std::vector<std::string> plain_words(const std::string& line) {
  std::vector<std::string> words;
  for (SetWord& word : split_words(line)) words.push_back(std::move(word.text));
  words.erase(words.begin());  // "set"
  return words;
}

void write_policy_file(const SourceFile& file, const std::string& xml, Output* out) {
  std::vector<std::string> lines = set_lines(config_lines(xml));
  std::vector<ConfigFault> faults;
  XmlPlaces places({file});
  std::string text;
  for (size_t i = 0; i < lines.size(); ++i) {
    std::vector<std::string> next;
    if (i + 1 < lines.size()) next = plain_words(lines[i + 1]);
    bool taken = false;
    try {
      text += policy_line(plain_words(lines[i]), next, &taken) + "\n";
    } catch (const LineFaultError& refused) {
      ConfigFault fault = fault_at(file.name(), 0, refused.fault);
      fault.path =
          agent_path(resolve_words({}, split_words(lines[i]), 1, SetUse::kSet).back().path);
      places.find(fault.path, &fault);
      faults.push_back(std::move(fault));
    }
    if (taken) ++i;
  }
  if (!faults.empty()) throw_faults(faults);
  out->write(text);
}

}  // namespace

int run_convert(const ConvertOptions& options, Output* out) {
  SourceFile file(options.file, "configuration or a policy file");
  std::string xml = sound_xml(file);
  if (options.to == "xml") {
    out->write(xml.empty() ? "<config xmlns=\"urn:norvik:config:1.0\"/>" : xml);
    out->write("\n");
  } else if (options.to == "json") {
    out->write(config_as_json(xml));
  } else if (options.to == "text") {
    write_policy_file(file, xml, out);
  } else {
    ConfigLines lines = config_lines(xml);
    for (const std::string& line : options.to == "tree" ? tree_lines(lines) : set_lines(lines)) {
      out->write(line + "\n");
    }
  }
  out->flush();
  return kDone;
}

}  // namespace polctl
