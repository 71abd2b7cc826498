#include "sim/com.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace sim {
namespace {

// Filled before main: needs no constructor of its own, whatever order the files come in.
constexpr std::size_t kMostClasses = 16;
ComClass classes[kMostClasses];
std::size_t classCount = 0;
std::atomic<long> liveObjects{0};

}  // namespace

bool RegisterComClass(const ComClass& comClass) {
  if (classCount == kMostClasses) {
    std::abort();
  }
  classes[classCount++] = comClass;
  return true;
}

long LiveComObjects() { return liveObjects; }
void CountComObject(long difference) { liveObjects += difference; }

}  // namespace sim

using namespace sim;

SIM(HRESULT, CoCreateInstance, REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID interfaceId, LPVOID* object) {
  for (std::size_t i = 0; i < classCount; ++i) {
    if (!IsEqualCLSID(*classes[i].id, classId)) {
      continue;
    }
    *object = nullptr;
    APTTYPE type{};
    APTTYPEQUALIFIER qualifier{};
    if (CoGetApartmentType(&type, &qualifier) != S_OK) {
      Violation("CoCreateInstance: COM is not initialised on this thread");
      return CO_E_NOTINITIALIZED;
    }
    if (outer != nullptr || (context & CLSCTX_INPROC_SERVER) == 0) {
      Violation("CoCreateInstance: an outer object, or context 0x%lx", context);
    }
    return classes[i].create(interfaceId, object);
  }
  return ::CoCreateInstance(classId, outer, context, interfaceId, object);
}
