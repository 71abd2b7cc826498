#include "json/reply.h"

namespace kiosk::json {

Value OkReply() {
  Value reply = Value::Object();
  reply.Set("ok", true);
  return reply;
}

Value ErrorReply(std::string_view code) {
  Value reply = Value::Object();
  reply.Set("ok", false);
  reply.Set("error", code);
  return reply;
}

}  // namespace kiosk::json
