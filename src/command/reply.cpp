#include "command/reply.h"

namespace kiosk::command {

json::Value OkReply() {
  json::Value reply = json::Value::Object();
  reply.Set("ok", true);
  return reply;
}

json::Value ErrorReply(std::string_view code) {
  json::Value reply = json::Value::Object();
  reply.Set("ok", false);
  reply.Set("error", code);
  return reply;
}

}  // namespace kiosk::command
