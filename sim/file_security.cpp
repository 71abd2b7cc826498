// Owner and DACL of files, which the development machine's file system does not keep.
#include "sim/files.h"
#include "sim/files_internal.h"
#include "sim/seam.h"

#include <aclapi.h>
#include <sddl.h>

namespace sim {
namespace {

std::wstring PartText(PSECURITY_DESCRIPTOR descriptor, SECURITY_INFORMATION parts) {
  wchar_t* text = nullptr;
  if (descriptor == nullptr ||
      !ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, parts, &text, nullptr)) {
    return L"";
  }
  std::wstring result = text;
  LocalFree(text);
  return result;
}

DWORD KeepSecurity(HANDLE object, SECURITY_INFORMATION parts, PSID owner, PACL dacl) {
  const std::wstring plain = PathOf(object);
  if (plain.empty()) {
    return ERROR_INVALID_HANDLE;
  }
  if (!HandleAllows(object, ((parts & OWNER_SECURITY_INFORMATION) != 0 ? WRITE_OWNER : 0U) |
                                ((parts & DACL_SECURITY_INFORMATION) != 0 ? WRITE_DAC : 0U))) {
    return ERROR_ACCESS_DENIED;
  }
  return Change<DWORD>("SetKernelObjectSecurity", plain, [&]() -> DWORD {
    SECURITY_DESCRIPTOR descriptor;
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    if ((parts & OWNER_SECURITY_INFORMATION) != 0) {
      SetSecurityDescriptorOwner(&descriptor, owner, FALSE);
      WriteText(kOwners, plain, PartText(&descriptor, OWNER_SECURITY_INFORMATION));
    }
    if ((parts & DACL_SECURITY_INFORMATION) != 0) {
      const bool isProtected = (parts & PROTECTED_DACL_SECURITY_INFORMATION) != 0;
      SetSecurityDescriptorDacl(&descriptor, TRUE, dacl, FALSE);
      SetSecurityDescriptorControl(
          &descriptor, SE_DACL_PROTECTED | SE_DACL_AUTO_INHERITED,
          static_cast<SECURITY_DESCRIPTOR_CONTROL>(SE_DACL_AUTO_INHERITED | (isProtected ? SE_DACL_PROTECTED : 0)));
      WriteText(kDacls, plain, PartText(&descriptor, DACL_SECURITY_INFORMATION));
    }
    return ERROR_SUCCESS;
  });
}

}  // namespace

std::wstring FileSecurity(const std::wstring& path) {
  const std::wstring plain = Plain(path);
  return ReadText(kOwners, plain).value_or(L"") + ReadText(kDacls, plain).value_or(L"");
}

void SetFileSecurity(const std::wstring& path, PSECURITY_DESCRIPTOR descriptor) {
  SetFileSecurity(path, PartText(descriptor, OWNER_SECURITY_INFORMATION),
                  PartText(descriptor, DACL_SECURITY_INFORMATION));
}

void SetFileSecurity(const std::wstring& path, const std::wstring& owner, const std::wstring& dacl) {
  WriteText(kOwners, Plain(path), owner);
  WriteText(kDacls, Plain(path), dacl);
}

std::wstring SddlText(PSECURITY_DESCRIPTOR descriptor) {
  return PartText(descriptor, OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION);
}

}  // namespace sim

using namespace sim;

// "Imposes the current inheritance model on the ACLs of all objects in the hierarchy below" ("Automatic Propagation of
// Inheritable ACEs"): it opens all that is in a folder, wherever that leads and whoever has a lock on it.
SIM(DWORD, SetSecurityInfo, HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID owner, PSID group,
    PACL dacl, PACL sacl) {
  if (type != SE_FILE_OBJECT) {
    return ::SetSecurityInfo(object, type, parts, owner, group, dacl, sacl);
  }
  const std::wstring path = PathOf(object);
  if ((::GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    Violation("SetSecurityInfo changes all that is in %s, which is not simulated", Narrow(path).c_str());
  }
  return KeepSecurity(object, parts, owner, dacl);
}

// Of this object alone.
SIM(WINBOOL, SetKernelObjectSecurity, HANDLE object, SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR descriptor) {
  PSID owner = nullptr;
  PACL dacl = nullptr;
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  if (!GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) ||
      !GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted) ||
      (owner == nullptr && (parts & OWNER_SECURITY_INFORMATION) != 0)) {
    Violation("SetKernelObjectSecurity: the descriptor does not hold what is to be set");
  }
  SetLastError(KeepSecurity(object, parts, owner, dacl));
  return GetLastError() == ERROR_SUCCESS;
}

// Owner and DACL: the simulated machine knows whom a path was given to; a path that nobody set is the program's own.
SIM(DWORD, GetSecurityInfo, HANDLE object, SE_OBJECT_TYPE type, SECURITY_INFORMATION parts, PSID* owner, PSID* group,
    PACL* dacl, PACL* sacl, PSECURITY_DESCRIPTOR* descriptor) {
  const std::wstring path = type == SE_FILE_OBJECT ? Plain(PathOf(object)) : L"";
  const bool known = ReadText(kOwners, path) || ReadText(kDacls, path);
  if ((parts & ~DWORD{OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION}) != 0 || !known) {
    return ::GetSecurityInfo(object, type, parts, owner, group, dacl, sacl, descriptor);
  }
  const std::wstring sddl =
      ReadText(kOwners, path).value_or(L"O:BA") +  // what an administrator makes belongs to that group
      ((parts & DACL_SECURITY_INFORMATION) != 0 ? ReadText(kDacls, path).value_or(L"") : std::wstring());
  BOOL defaulted = FALSE;
  PSID found = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1, descriptor, nullptr) ||
      !GetSecurityDescriptorOwner(*descriptor, &found, &defaulted)) {
    return GetLastError();
  }
  if (owner != nullptr) {
    *owner = found;
  }
  return ERROR_SUCCESS;
}
