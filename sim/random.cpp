#include "sim/random.h"

#include "sim/seam.h"

#include <bcrypt.h>

namespace sim {
namespace {

RandomScript::Fill script;

}  // namespace

RandomScript::RandomScript(Fill fill) { script = std::move(fill); }

RandomScript::~RandomScript() { script = nullptr; }

}  // namespace sim

using namespace sim;

SIM(NTSTATUS, BCryptGenRandom, BCRYPT_ALG_HANDLE algorithm, PUCHAR buffer, ULONG size, ULONG flags) {
  if (algorithm != nullptr || flags != BCRYPT_USE_SYSTEM_PREFERRED_RNG) {
    Violation("BCryptGenRandom: not the system's preferred generator");
  }
  if (script) {
    return script(buffer, size) ? 0 : static_cast<NTSTATUS>(0xC0000001);
  }
  return ::BCryptGenRandom(algorithm, buffer, size, flags);
}
