// The order of the virtual functions of the interfaces: hosts that were built with an earlier
// release call them by position. tests/abi/exports.txt lists it for both systems.
#include <gtest/gtest.h>
#include <tolk/tolk.h>

#include <cstddef>
#include <cstring>
#include <fstream>
#include <string>
#include <type_traits>
#include <vector>

namespace {

// The slot of a virtual function, counted in the order of declaration. The compilers' pointer to it
// holds its position in the virtual table, times the size of an entry, plus one. A destructor,
// which is always the first function, has two entries.
template <class Interface, class Operation>
int slot_of(Operation operation) {
  std::ptrdiff_t place = 0;
  std::memcpy(&place, &operation, sizeof place);
  const auto entry = static_cast<int>((place - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)));
  return std::has_virtual_destructor_v<Interface> ? entry - 1 : entry;
}

#define TOLK_SLOT(interface, operation)                                                 \
  lines.push_back("slot " + std::to_string(slot_of<interface>(&interface::operation)) + \
                  " of " #interface ": " #operation)

std::vector<std::string> slots_of_the_headers() {
  std::vector<std::string> lines;
  lines.emplace_back("slot 0 of IClient: ~IClient");
  TOLK_SLOT(IClient, InitTolkClient);
  TOLK_SLOT(IClient, InitTolkClientTcp4);
  TOLK_SLOT(IClient, InitTolkClientTcp6);
  TOLK_SLOT(IClient, SetTimeoutStep);
  TOLK_SLOT(IClient, isok);
  TOLK_SLOT(IClient, close);
  TOLK_SLOT(IClient, SendMsg);
  TOLK_SLOT(IClient, SendMsgFast);
  TOLK_SLOT(IClient, PostMsg);
  TOLK_SLOT(IClient, PostMsgFast);
  TOLK_SLOT(IClient, SendMsgEx);
  TOLK_SLOT(IClient, log);
  TOLK_SLOT(IClient, method);
  TOLK_SLOT(IClient, methodall);
  TOLK_SLOT(IClient, SetCustomReleaseEvent);
  TOLK_SLOT(IClient, SetBigfileBufferSize);
  TOLK_SLOT(IClient, GetBigfileBufferSize);
  TOLK_SLOT(IClient, ClearRetvalMem);
  lines.emplace_back("slot 0 of IMethodAll: ~IMethodAll");
  TOLK_SLOT(IMethodAll, callback);
  TOLK_SLOT(IServer, ListenPipe);
  TOLK_SLOT(IServer, InitTolkServer);
  TOLK_SLOT(IServer, ListenTcp4);
  TOLK_SLOT(IServer, ListenTcp6);
  TOLK_SLOT(IServer, InitTolkServerTcp4);
  TOLK_SLOT(IServer, InitTolkServerTcp6);
  TOLK_SLOT(IServer, run);
  TOLK_SLOT(IServer, SetTimeoutStep);
  TOLK_SLOT(IServer, isok);
  TOLK_SLOT(IServer, close);
  TOLK_SLOT(IServer, closeasync);
  TOLK_SLOT(IServer, SendMsg);
  TOLK_SLOT(IServer, PostMsg);
  TOLK_SLOT(IServer, log);
  TOLK_SLOT(IServer, method);
  TOLK_SLOT(IServer, methodall);
  TOLK_SLOT(IServer, GetPort);
  TOLK_SLOT(IServer, GetClientCount);
  TOLK_SLOT(IServer, IsPipe);
  TOLK_SLOT(IServer, SetCustomReleaseEvent);
  TOLK_SLOT(IServer, SetBigfileBufferSize);
  TOLK_SLOT(IServer, ClearRetvalMem);
  lines.emplace_back("slot 0 of IServerMethod: ~IServerMethod");
  TOLK_SLOT(IServerMethod, callback);
  return lines;
}

std::vector<std::string> slots_of_the_file() {
  std::ifstream file(TOLK_EXPORTS_FILE);
  std::vector<std::string> lines;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("slot ")) lines.push_back(line);
  }
  return lines;
}

TEST(Exports, VirtualTableSlotsNeverChange) {
  EXPECT_EQ(slots_of_the_headers(), slots_of_the_file());
}

}  // namespace
