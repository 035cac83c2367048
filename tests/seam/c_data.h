// Scenarios of large data: with sources and sinks of every kind, and with peers that know no
// pieces. The plain peers are sockets of the test, where nothing fails. Thread: one. Failure: as
// the world's.
#pragma once

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

}  // namespace tolk::test
