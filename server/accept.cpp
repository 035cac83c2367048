// Clients come and go: what that prints, calls and counts.
#include "server/server_side.h"
#include "transport/reserved_names.h"

namespace tolk {
namespace {

// Accepted clients of all servers of the process.
constinit std::atomic<int> accepted_count{0};

}  // namespace

// Loop.

void ServerSide::on_connection_error() { logger.plain("New client connection error...\n"); }

void ServerSide::on_connecting(int id) { call_hook(kHookConnect, id); }

void ServerSide::on_accept_failed() { logger.plain("Accept error... .\n"); }

// On purpose: the line of a pipe server ends without the number of connections.
void ServerSide::on_accepted(int id, bool is_tcp, int count) {
  const int before = accepted_count.fetch_add(1);
  if (is_tcp) {
    logger.formatted("Accept success: %d client id: %d all count:%d \n", before, id, count);
  } else {
    logger.formatted("Accept success: %d client id: %d all count: \n", before, id);
  }
}

void ServerSide::on_client_refused(const std::string& user) {
  logger.plain("Client refused: %s\n", user.c_str());
}

// A client counts from its first read on, the one that ends the connection included.
void ServerSide::on_first_read(int) { ++client_count; }

void ServerSide::on_client_gone(int id, int status) {
  if (status != UV_EOF) logger.plain("Read error %s\n", uv_err_name(status));
  call_hook(kHookClosed, id);
}

void ServerSide::on_client_left(int id, bool had_read) {
  if (had_read) --client_count;
  logger.formatted("Client Close: %d\n", id);
}

void ServerSide::call_hook(const char* name, int client_id) {
  const MethodRef hook = methods.acquire(name);
  if (!hook) return;
  logger.run_guarded(name, [&] { hook->callback(client_id, nullptr, nullptr); });
}

}  // namespace tolk
