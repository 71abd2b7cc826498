// One run of the kit: what is left of it over a restart of the computer, its report, its portal.
#pragma once

#include "json/value.h"
#include "tools/proof/portal.h"
#include "tools/proof/report.h"

#include <memory>
#include <string>
#include <vector>

namespace proof {

struct RunOptions {
  bool restarts = false;  // Windows may restart
  bool quick = false;     // nothing waits for a minute
  std::string only;       // cases and steps whose id begins so
};

class Run {
 public:
  // An administrator's: begins the report and the notes for the agent. Empty, or why not.
  std::string Begin(const std::wstring& reportFolder, const RunOptions& options);
  // The agent's, at each of its starts; the first one notes what the computer is like (Before). Empty, or why not: the
  // notes or the report are not what a run leaves, which is noted for whoever comes to look (WhyCutShort).
  std::string GoOn();

  [[nodiscard]] const RunOptions& Options() const noexcept { return options_; }
  [[nodiscard]] bool Wants(const std::string& id) const { return id.starts_with(options_.only); }
  Report& TheReport() noexcept { return *report_; }
  Portal& ThePortal() noexcept { return portal_; }

  // Asks the contract cases that the run wants, and whether they leave the computer as it was.
  void AskCases(const char* caller);

  // Of what GoOn finds again: numbers and texts.
  [[nodiscard]] const kiosk::json::Value& Note(const char* name) const { return Member(notes_, name); }
  bool SetNote(const char* name, kiosk::json::Value value);

  // The computer as it was before the agent's first step, as the agent sees it: an administrator may see less.
  [[nodiscard]] std::vector<std::string> Before() const;

 private:
  kiosk::json::Value notes_ = kiosk::json::Value::Object();
  RunOptions options_;
  std::unique_ptr<Report> report_;
  Portal portal_;
};

// The one of this process.
Run& TheRun();

// Why the run whose journal is there did not go on, and what is to be done.
std::string WhyCutShort();

}  // namespace proof
