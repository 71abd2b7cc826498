// What "kioskctl check" looks at. Every check asks Windows or the portal itself, so that it answers while the service
// hangs or is gone.
#pragma once

#include <string>
#include <vector>

namespace kioskctl {

struct Finding {
  std::string what;  // one or two words: "service", "portal name"
  bool good = false;
  std::string told;    // what was found
  std::string advice;  // what to do about it; empty when it is good
};

inline Finding Good(std::string what, std::string told) { return {std::move(what), true, std::move(told), {}}; }
inline Finding Bad(std::string what, std::string told, std::string advice) {
  return {std::move(what), false, std::move(told), std::move(advice)};
}

// All that is looked at, in the order in which it is told.
std::vector<Finding> CheckAll();

// As a person reads it: a line for each, and one with the advice.
std::string FindingsText(const std::vector<Finding>& findings);

// The way to the portal, step by step, up to the first that fails: proxy, address, name, TCP, TLS and HTTP, clock.
std::vector<Finding> CheckPortal();

// The default proxy of Windows' services and what it is not for; "none" when there is none.
std::string ProxyText();

// Both tasks for sleep and wake are in Task Scheduler.
bool TasksAreThere();

// The program file of the installed service; empty when there is none.
std::wstring ServiceFile();

}  // namespace kioskctl
