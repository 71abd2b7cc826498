// What a run found, for a person (report.txt) and for tools (report.json), both whole after every line.
#pragma once

#include "json/value.h"
#include "tests/contract/contract.h"

#include <string>
#include <vector>

namespace proof {

struct Line {
  std::string id;      // "contract/files/move", "life/pair"
  std::string caller;  // who asked
  std::string asked;   // the promise
  contract::Result answer;
};

// Held when there is no such line, otherwise broken with all of them.
contract::Result HeldWithout(const std::vector<std::string>& lines);

class Report {
 public:
  // In this folder; empty: the lines are only printed. What a report there says already is kept when the run goes on.
  explicit Report(std::wstring folder) : folder_(std::move(folder)), content_(kiosk::json::Value::Object()) {}

  // Empty, or a sentence: why there can be no report in the folder.
  std::string Begin(kiosk::json::Value head);
  // False when the report in the folder cannot be read.
  bool GoOn();

  // These print the line as well. The run goes on when one cannot be saved: the next one saves both.
  void Add(const Line& line);
  void Set(const char* member, kiosk::json::Value value);
  void SetList(const char* member, const std::vector<std::string>& lines);
  // No such text comes into the report from now on.
  void Conceal(const std::string& secret);

  // The run came to its end.
  [[nodiscard]] bool IsDone() const { return Member(content_, "done").boolean(); }
  [[nodiscard]] int Count(contract::Verdict verdict) const;
  // "N held, M broken, K known, L could not run".
  [[nodiscard]] std::string Summary() const;
  // The lines that this has not printed yet: the agent wrote them, and GoOn has read them.
  void PrintNew();

 private:
  [[nodiscard]] std::string Told(std::string text) const;
  [[nodiscard]] std::string Text() const;
  [[nodiscard]] bool Save() const;

  std::wstring folder_;
  kiosk::json::Value content_;
  std::size_t printed_ = 0;  // lines
  std::vector<std::string> secrets_;
};

}  // namespace proof
