// COM classes, and the scheduled tasks behind one.
#include "tests/contract/contract.h"
#include "win32/com.h"

#include <taskschd.h>

namespace contract {
namespace {

using kiosk::win32::ComApartment;
using kiosk::win32::ComPtr;

constexpr GUID kNoClass{0x4E6F7276, 0x616E, 0x6550, {0x72, 0x6F, 0x6F, 0x66, 0, 0, 0, 2}};
constexpr wchar_t kTask[] = L"NorvaneProof";

class Text {
 public:
  explicit Text(const wchar_t* text) : text_(SysAllocString(text)) {}
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  ~Text() { SysFreeString(text_); }
  [[nodiscard]] BSTR Get() const noexcept { return text_; }

 private:
  BSTR text_;
};

ComPtr<ITaskFolder> RootFolder() {
  ComPtr<ITaskService> service;
  HRESULT result = CoCreateInstance(CLSID_TaskScheduler, nullptr, CLSCTX_INPROC_SERVER, IID_ITaskService,
                                    reinterpret_cast<void**>(service.Put()));
  VARIANT none{};
  if (SUCCEEDED(result)) {
    result = service->Connect(none, none, none, none);
  }
  ComPtr<ITaskFolder> folder;
  const Text root(L"\\");
  if (SUCCEEDED(result)) {
    result = service->GetFolder(root.Get(), folder.Put());
  }
  SetLastError(static_cast<DWORD>(result));
  Asked::Needs(SUCCEEDED(result) && folder, "the scheduler's root folder");
  return folder;
}

void UnknownClassesAreErrors(Asked& asked) {
  const ComApartment apartment;
  void* object = nullptr;
  asked.Same("CoCreateInstance", CoCreateInstance(kNoClass, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object),
             REGDB_E_CLASSNOTREG);
}

void MissingTasksAreErrors(Asked& asked) {
  const ComApartment apartment;
  const ComPtr<ITaskFolder> folder = RootFolder();
  const Text name(kTask);
  ComPtr<IRegisteredTask> task;
  asked.Same("GetTask", folder->GetTask(name.Get(), task.Put()), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
  asked.Same("DeleteTask", folder->DeleteTask(name.Get(), 0), HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND));
}

constexpr Case kCases[] = {
    {"no class", "a class that is not registered is an error of its own", UnknownClassesAreErrors},
    {"missing", "a task that is not there is told by both calls alike", MissingTasksAreErrors},
};

}  // namespace

extern const Group kTasks;
const Group kTasks{"tasks", kCases};

}  // namespace contract
