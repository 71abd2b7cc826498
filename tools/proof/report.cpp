#include "tools/proof/report.h"

#include "json/serialise.h"
#include "text/text.h"
#include "tools/proof/files.h"
#include "win32/console.h"

#include <algorithm>

namespace proof {
namespace {

using contract::Verdict;
using kiosk::json::Member;
using kiosk::json::Value;

constexpr Verdict kVerdicts[] = {Verdict::kHeld, Verdict::kBroken, Verdict::kKnown, Verdict::kCouldNotRun};

std::string TextOf(const Value& line) {
  std::string verdict = Member(line, "verdict").text();
  verdict.resize(std::max<std::size_t>(verdict.size(), 13), ' ');
  const std::string& answered = Member(line, "answered").text();
  return verdict + " " + Member(line, "id").text() + " (" + Member(line, "caller").text() + ")" +
         (answered.empty() ? "" : ": " + answered) + "\n";
}

}  // namespace

contract::Result HeldWithout(const std::vector<std::string>& lines) {
  return {lines.empty() ? Verdict::kHeld : Verdict::kBroken, Joined(lines)};
}

std::string Report::Begin(Value head) {
  content_.Set("head", std::move(head));
  content_.Set("lines", Value::Array());
  content_.Set("running", "kit/begin");
  if (folder_.empty()) {
    return {};
  }
  if (IsThere(folder_ + L"\\report.json")) {
    return "there is a report in that folder already; name another one with --report";
  }
  if (CreateDirectoryW(folder_.c_str(), nullptr) == 0 && GetLastError() != ERROR_ALREADY_EXISTS) {
    return "the folder of the report cannot be made (" + std::to_string(GetLastError()) + ")";
  }
  return Save() ? std::string() : "the report cannot be written (" + std::to_string(GetLastError()) + ")";
}

bool Report::GoOn() {
  Value content = ReadJson(folder_ + L"\\report.json");
  const bool whole = Member(content, "lines").IsArray();
  if (whole) {
    content_ = std::move(content);
  }
  return whole;
}

void Report::Add(const Line& line) {
  Value added = Value::Object();
  added.Set("id", line.id);
  added.Set("caller", line.caller);
  added.Set("verdict", Name(line.answer.verdict));
  added.Set("asked", line.asked);
  added.Set("answered", Told(line.answer.why));
  Value lines = Member(content_, "lines");
  lines.Append(std::move(added));
  Set("lines", std::move(lines));
  PrintNew();
}

void Report::Set(const char* member, Value value) {
  content_.Set(member, std::move(value));
  static_cast<void>(Save());
}

void Report::SetList(const char* member, const std::vector<std::string>& lines) {
  Value list = Value::Array();
  for (const std::string& line : lines) {
    list.Append(Told(line));
  }
  Set(member, std::move(list));
}

void Report::Conceal(const std::string& secret) {
  if (!secret.empty()) {
    secrets_.push_back(secret);
  }
}

// Lines of the product's log and reasons hold text from outside.
std::string Report::Told(std::string text) const {
  kiosk::text::MakeSingleLine(text.data(), text.size());
  for (const std::string& secret : secrets_) {
    for (std::size_t at = 0; (at = text.find(secret, at)) != std::string::npos;) {
      text.replace(at, secret.size(), "(withheld)");
    }
  }
  return text;
}

int Report::Count(Verdict verdict) const {
  const std::vector<Value>& lines = Member(content_, "lines").items();
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [verdict](const Value& line) {
    return Member(line, "verdict").text() == Name(verdict);
  }));
}

std::string Report::Summary() const {
  std::string text;
  for (const Verdict verdict : kVerdicts) {
    text += (text.empty() ? "" : ", ") + std::to_string(Count(verdict)) + " " + Name(verdict);
  }
  return text;
}

void Report::PrintNew() {
  const std::vector<Value>& lines = Member(content_, "lines").items();
  for (; printed_ < lines.size(); ++printed_) {
    kiosk::win32::Print(TextOf(lines[printed_]));
  }
}

std::string Report::Text() const {
  std::string text;
  const Value& head = Member(content_, "head");
  for (std::size_t i = 0; i < head.keys().size(); ++i) {
    text += head.keys()[i] + ": " + kiosk::json::AsString(head.values()[i]) + "\n";
  }
  text += "\n";
  for (const Value& line : Member(content_, "lines").items()) {
    text += TextOf(line);
  }
  for (const char* const list : {"differences", "log"}) {
    text += "\n" + std::string(list) + ":\n";
    for (const Value& line : Member(content_, list).items()) {
      text += line.text() + "\n";
    }
  }
  return text + "\n" + (IsDone() ? Summary() : "not finished: " + Member(content_, "running").text()) + "\n";
}

bool Report::Save() const {
  return folder_.empty() || (ReplaceFileText(folder_ + L"\\report.json", kiosk::json::Serialise(content_) + "\n") &&
                             ReplaceFileText(folder_ + L"\\report.txt", Text()));
}

}  // namespace proof
