// Scenarios of large data: with sources and sinks of every kind, and with peers that know no
// pieces. The plain peers are sockets of the test, where nothing fails, or of the required
// interface. Thread: one. Failure: as the world's.
#pragma once

#include "tests/e2e/support/transports.h"
#include "tests/seam/c_world.h"

namespace tolk::test {

// In c_data.cpp.
void send_data_to_a_sink(CWorld& world);
void get_data_into_a_sink(CWorld& world);
void send_a_file_to_a_file(CWorld& world);
void cancel_a_transfer(CWorld& world);

// In c_plain.cpp.
void large_call_of_a_plain_client(CWorld& world);
void give_data_to_a_plain_client(CWorld& world);
void exchange_data_with_a_plain_server(CWorld& world);
// Where other peers find the server.
Address address_of(tolk_server* server);

// In c_required.cpp.
void calls_with_a_required_server(CWorld& world);
void calls_with_a_required_client(CWorld& world);

}  // namespace tolk::test
