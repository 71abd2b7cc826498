// Network adapters and routes.
#include <winsock2.h>

#include <ws2ipdef.h>

#include "tests/contract/contract.h"

#include <iphlpapi.h>
#include <netioapi.h>

#include <cstddef>

namespace contract {
namespace {

constexpr ULONG kFlags = GAA_FLAG_INCLUDE_GATEWAYS | GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST;

void ListsWantRoom(Asked& asked) {
  ULONG size = 1;
  alignas(std::max_align_t) std::byte small[1];
  asked.Same("1 byte",
             GetAdaptersAddresses(AF_INET, kFlags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(small), &size),
             ERROR_BUFFER_OVERFLOW);
  asked.True("the size that it tells", size > 1);
  std::vector<std::max_align_t> room(size / sizeof(std::max_align_t) + 1024);
  size = static_cast<ULONG>(room.size() * sizeof(std::max_align_t));
  auto* const first = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(room.data());
  asked.OneOf("as much room", GetAdaptersAddresses(AF_INET, kFlags, nullptr, first, &size),
              {ERROR_SUCCESS, ERROR_NO_DATA});
  asked.True("names", first->AdapterName != nullptr && first->FriendlyName != nullptr);
  MIB_IF_ROW2 row{};
  row.InterfaceLuid = first->Luid;
  asked.Same("GetIfEntry2 of the first", GetIfEntry2(&row), NO_ERROR);
}

void UnknownAdaptersAreErrors(Asked& asked) {
  MIB_IF_ROW2 row{};
  row.InterfaceLuid.Value = 0x7FFFFFFF;
  asked.Same("GetIfEntry2", GetIfEntry2(&row), ERROR_FILE_NOT_FOUND);
}

void RoutesAreListed(Asked& asked) {
  MIB_IPFORWARD_TABLE2* table = nullptr;
  asked.Same("GetIpForwardTable2", GetIpForwardTable2(AF_INET, &table), NO_ERROR);
  const AtEnd free([&] { FreeMibTable(table); });
  for (ULONG i = 0; table != nullptr && i < table->NumEntries; ++i) {
    asked.Same("the family of a route", table->Table[i].DestinationPrefix.Prefix.si_family, AF_INET);
  }
}

// "InitializeIpForwardEntry function": what it leaves is not valid yet.
void EntriesWantMore(Asked& asked) {
  if (ThisPlatform() == Platform::kWine) {
    Asked::CannotRun("Wine lacks InitializeIpForwardEntry and what makes routes");
  }
  MIB_IPFORWARD_ROW2 row;
  InitializeIpForwardEntry(&row);
  asked.Same("its lifetime", row.ValidLifetime, INFINITE);
  asked.Same("CreateIpForwardEntry2", CreateIpForwardEntry2(&row), ERROR_INVALID_PARAMETER);
  row.DestinationPrefix.Prefix.Ipv4.sin_family = AF_INET;
  row.DestinationPrefix.PrefixLength = 0;
  row.NextHop.Ipv4.sin_family = AF_INET;
  row.NextHop.Ipv4.sin_addr.s_addr = htonl(0xC0000201);  // of a network for documents (RFC 5737)
  row.InterfaceLuid.Value = 0x7FFFFFFF;
  asked.OneOf("DeleteIpForwardEntry2 of a route that is not there", DeleteIpForwardEntry2(&row),
              {ERROR_FILE_NOT_FOUND, ERROR_NOT_FOUND, ERROR_INVALID_PARAMETER});
}

constexpr Case kCases[] = {
    {"list", "a list that does not fit tells the room it wants", ListsWantRoom},
    {"unknown", "an adapter that is not there is an error", UnknownAdaptersAreErrors},
    {"routes", "routes are listed by family", RoutesAreListed},
    {"entry", "a fresh entry is no route yet", EntriesWantMore},
};

}  // namespace

extern const Group kAdapters;
const Group kAdapters{"adapters", kCases};

}  // namespace contract
