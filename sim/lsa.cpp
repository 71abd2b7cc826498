#include "sim/lsa.h"

#include "sim/buffers.h"
#include "sim/faults.h"
#include "sim/machine.h"

#include <ntsecapi.h>

#include <algorithm>
#include <atomic>
#include <cstddef>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"Secrets";

Buffers handles;  // each holds the rights that it was opened with
Buffers buffers;  // the text begins right behind the counted string
std::atomic<int> questions{0};

// The status whose LsaNtStatusToWinError is the error.
NTSTATUS StatusOf(DWORD error) {
  constexpr struct {
    DWORD error, status;
  } kPairs[] = {{ERROR_SUCCESS, 0},
                {ERROR_ACCESS_DENIED, 0xC0000022},
                {ERROR_FILE_NOT_FOUND, 0xC0000034},
                {ERROR_INVALID_HANDLE, 0xC0000008},
                {ERROR_INVALID_PARAMETER, 0xC000000D},
                {ERROR_NO_SYSTEM_RESOURCES, 0xC000009A}};
  const auto* pair = std::find_if(std::begin(kPairs), std::end(kPairs),
                                  [error](const auto& candidate) { return candidate.error == error; });
  return static_cast<NTSTATUS>(pair != std::end(kPairs) ? pair->status : 0xC0000001);
}

std::wstring TextOf(const LSA_UNICODE_STRING* text, const char* what) {
  if (text == nullptr || (text->Length != 0 && text->Buffer == nullptr) || text->Length % sizeof(wchar_t) != 0 ||
      text->MaximumLength < text->Length) {
    Violation("%s is not a counted string", what);
    return {};
  }
  return {text->Buffer, text->Length / sizeof(wchar_t)};
}

DWORD CheckHandle(LSA_HANDLE handle, ACCESS_MASK needed) {
  if (handles.SizeOf(handle) == 0) {
    Violation("an LSA function is given a handle that is not open");
    return ERROR_INVALID_HANDLE;
  }
  return (*static_cast<ACCESS_MASK*>(handle) & needed) == needed ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
}

}  // namespace

std::optional<std::wstring> Secret(const std::wstring& name) { return ReadText(kArea, name); }

void SetSecret(const std::wstring& name, const std::wstring& text) { WriteText(kArea, name, text); }

void FailLsa(DWORD error) { WriteNumber(L"Lsa", L"Error", error); }

int LsaQuestions() { return questions; }

}  // namespace sim

using namespace sim;

SIM(NTSTATUS, LsaOpenPolicy, PLSA_UNICODE_STRING system, PLSA_OBJECT_ATTRIBUTES attributes, ACCESS_MASK access,
    PLSA_HANDLE handle) {
  if (system != nullptr || attributes == nullptr || attributes->RootDirectory != nullptr ||
      attributes->ObjectName != nullptr || attributes->Attributes != 0 || attributes->SecurityDescriptor != nullptr ||
      attributes->SecurityQualityOfService != nullptr) {
    Violation("LsaOpenPolicy: another machine, or attributes that are not zero");
    return StatusOf(ERROR_INVALID_PARAMETER);
  }
  ++questions;
  if (const DWORD error = ReadNumber(L"Lsa", L"Error").value_or(ERROR_SUCCESS); error != ERROR_SUCCESS) {
    return StatusOf(error);
  }
  *handle = handles.New(sizeof(access));
  *static_cast<ACCESS_MASK*>(*handle) = access;
  return 0;
}

SIM(NTSTATUS, LsaClose, LSA_HANDLE handle) {
  if (!handles.Free(handle)) {
    Violation("LsaClose: the handle is not open");
    return StatusOf(ERROR_INVALID_HANDLE);
  }
  return 0;
}

SIM(NTSTATUS, LsaStorePrivateData, LSA_HANDLE handle, PLSA_UNICODE_STRING name, PLSA_UNICODE_STRING data) {
  std::wstring key = TextOf(name, "LsaStorePrivateData: the name");
  const std::wstring text = data != nullptr ? TextOf(data, "LsaStorePrivateData: the data") : std::wstring();
  return StatusOf(Change<DWORD>(__func__ + 4, key, [&]() -> DWORD {
    if (const DWORD error = CheckHandle(handle, POLICY_CREATE_SECRET); error != ERROR_SUCCESS) {
      return error;
    }
    if (data == nullptr && !Secret(key)) {
      return ERROR_FILE_NOT_FOUND;
    }
    if (data == nullptr) {
      ForgetValue(kArea, key);
    } else {
      SetSecret(key, text);
    }
    return ERROR_SUCCESS;
  }));
}

SIM(NTSTATUS, LsaRetrievePrivateData, LSA_HANDLE handle, PLSA_UNICODE_STRING name, PLSA_UNICODE_STRING* data) {
  *data = nullptr;
  if (const DWORD error = CheckHandle(handle, POLICY_GET_PRIVATE_INFORMATION); error != ERROR_SUCCESS) {
    return StatusOf(error);
  }
  const auto text = Secret(TextOf(name, "LsaRetrievePrivateData: the name"));
  if (!text) {
    return StatusOf(ERROR_FILE_NOT_FOUND);
  }
  const std::size_t size = text->size() * sizeof(wchar_t);
  void* const memory = buffers.New(sizeof(LSA_UNICODE_STRING) + size);
  auto* const characters = reinterpret_cast<wchar_t*>(static_cast<LSA_UNICODE_STRING*>(memory) + 1);
  std::copy_n(text->data(), text->size(), characters);
  *data = new (memory) LSA_UNICODE_STRING{static_cast<USHORT>(size), static_cast<USHORT>(size), characters};
  return 0;
}

SIM(NTSTATUS, LsaFreeMemory, PVOID memory) {
  const auto* const begin = static_cast<const std::byte*>(memory);
  const auto* const end = begin + buffers.SizeOf(memory);
  if (begin == end) {
    Violation("LsaFreeMemory: not a buffer that is in use");
    return StatusOf(ERROR_INVALID_PARAMETER);
  }
  if (std::any_of(begin + sizeof(LSA_UNICODE_STRING), end, [](std::byte each) { return each != std::byte{}; })) {
    Violation("LsaFreeMemory: the secret was not wiped");
  }
  buffers.Free(memory);
  return 0;
}
