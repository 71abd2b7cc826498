// Parsing and serialising against nlohmann-json, on a check-in reply and on a document of 1 MB. "Parse" includes the
// release of the parsed document. The peer is the faster of nlohmann's two object types.

#include <algorithm>
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>

#include "bench.h"
#include "json/parse.h"
#include "json/serialise.h"

namespace {

using kiosk::bench::Keep;

std::string CheckInReply() {
  std::string photos;
  for (int i = 0; i < 2; ++i) {
    photos += std::string(i == 0 ? "" : ",") + R"({"sha256":")" + std::string(64, static_cast<char>('a' + i)) +
              R"(","contentType":"image/jpeg","width":3840,"height":2160,"credit":"Photo: J. Żurek, \"Hala 3\""})";
  }
  return R"({"status":"enrolled","name":"Łódź – Hall 3, left gate","tenantId":"6f0c2c1e-58b1-4f52-9f0e-0d6e4a2f7b11",)"
         R"("signIn":{"microsoft":true,"email":false,"extraHosts":["login.contoso.example","cdn.contoso.example"]},)"
         R"("power":{"screenOffMinutes":15,"sleepMinutes":0,"schedule":{"enabled":true,"sleepAt":"22:00",)"
         R"("wakeAt":"07:00","days":[1,2,3,4,5]}},"powerSource":"tenant",)"
         R"("updates":{"automatic":true,"window":{"start":"02:00","end":"05:00","days":[0,1,2,3,4,5,6]}},)"
         R"("updatesSource":"default","exitPassword":"correct horse battery staple",)"
         R"("branding":{"displayName":"Contoso Logistics","signInSubtitle":"Sign in with your badge\nor your e-mail",)"
         R"("photos":[)" +
         photos + "]}}";
}

// Records of a mixed kind, with white space as a person's tool writes it: texts, escapes, whole and broken numbers.
std::string LargeDocument() {
  std::string text = "{\n  \"records\": [\n";
  for (unsigned i = 0; text.size() < 1'000'000; ++i) {
    char record[512];
    (void)std::snprintf(
        record, sizeof(record),
        "%s    {\"id\": %u, \"host\": \"terminal-%04u.branch.example\", \"online\": %s, \"load\": %u.%02u, "
        "\"lastSeen\": \"2026-10-%02uT07:%02u:00Z\", \"tags\": [\"gate\", \"h%u\", \"zażółć\"], "
        "\"note\": \"line one\\nline \\\"two\\\" \\u2013 seen\", \"owner\": null}",
        i == 0 ? "" : ",\n", i * 7919, i % 10000, i % 3 == 0 ? "true" : "false", i % 90, i % 100, 1 + i % 28, i % 60,
        i % 16);
    text += record;
  }
  return text + "\n  ]\n}\n";
}

template <typename Json>
std::function<void()> PeerParse(const std::string& text) {
  return [&text] { Keep(Json::parse(text)); };
}

template <typename Json>
std::function<void()> PeerSerialise(const std::string& text) {
  return [document = Json::parse(text)] { Keep(document.dump()); };
}

void Case(const char* document, const std::string& text, int rounds, int calls) {
  const auto row = [&](const char* action, const std::vector<std::function<void()>>& actions) {
    const std::vector<kiosk::bench::Times> times = kiosk::bench::Measure(rounds, calls, actions);
    const kiosk::bench::Times& faster = times[1].median < times[2].median ? times[1] : times[2];
    kiosk::bench::Row(std::string("json ") + document + " " + action, times[0], {"nlohmann", faster},
                      kiosk::bench::TimesBetter(1.5));
  };
  row("parse", {[&] { Keep(kiosk::json::Parse(text)); }, PeerParse<nlohmann::json>(text),
                PeerParse<nlohmann::ordered_json>(text)});
  row("serialise", {[value = *kiosk::json::Parse(text)] { Keep(kiosk::json::Serialise(value)); },
                    PeerSerialise<nlohmann::json>(text), PeerSerialise<nlohmann::ordered_json>(text)});
}

}  // namespace

int main() {
  Case("check-in", CheckInReply(), 51, 200);
  Case("1 MB", LargeDocument(), 15, 1);
  return 0;
}
