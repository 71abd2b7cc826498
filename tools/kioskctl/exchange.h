// What the commands share: asking the service, showing what it answers, and what its error codes mean to a person.
#pragma once

#include "json/value.h"
#include "pipe_client.h"

#include <string>
#include <string_view>

namespace kioskctl {

// What the program ends with.
enum ExitCode : int { kDone = 0, kServiceError = 1, kUsage = 2, kNoService = 3 };

// As which this program speaks of itself. In main.cpp, which the two builds do not share.
extern const char kProgram[];

struct Options {
  bool json = false;    // JSON, a line each, for scripts
  bool keep = false;    // "net-set": nothing has to prove the settings
  bool follow = false;  // "log": goes on with what comes
};

// A command of this program in quotes, as a person types it.
std::string CommandLine(const char* command);

// " (error 5)"
std::string ErrorText(unsigned long error);

// "is stopped", "is still starting": the state of a service that does not run.
const char* StateText(unsigned long state);

kiosk::json::Value Request(const char* command);
// There is a reply, and it is no error.
bool Ok(const Answer& answer);

// A reply as a console may show it: each of its texts on one line, without the control bytes with which a name could
// command the console.
kiosk::json::Value Shown(const kiosk::json::Value& reply);

// Sends a request, of which no copy is left in memory, and waits so many milliseconds for the reply.
Answer AskFor(kiosk::json::Value request, unsigned long replyWait = kReplyWait);

// Sends a request that is answered once; `success` says what a good reply means. Returns the exit code.
int Run(const Options& options, kiosk::json::Value request, std::string (*success)(const kiosk::json::Value& reply),
        unsigned long replyWait = kReplyWait);

// A value on one line, everything beyond ASCII written as \uXXXX: a script may read it in any code page, and nothing in
// it commands a console.
void PrintJson(const kiosk::json::Value& value);
// The reply, if there is one.
void PrintReply(const Answer& answer);
// Each prints to standard error and returns the exit code: why there is no reply, or, unless replies are printed as
// they are, what the error of a reply to the command means; what is wrong with the command line.
int Failed(const Options& options, const Answer& answer, std::string_view command = {});
int WrongUsage(const std::string& problem);

// The sentence for an error code that answers the command (pipe's name, "os.install"); the code itself when there is no
// better one.
std::string Explain(const std::string& code, std::string_view command = {});

// What the service does not say: kiosk mode is being removed. Only administrators may look there; to anybody else the
// terminal is just not paired.
bool RemovalPending();

}  // namespace kioskctl
