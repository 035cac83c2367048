// Connecting: the host's side of an attempt, the version check, and what an attempt prints.
#include <array>
#include <string>
#include <utility>

#include "client/client_side.h"
#include "params/content.h"
#include "params/value_access.h"
#include "platform/guarded.h"
#include "platform/process.h"
#include "platform/standard_output.h"
#include "platform/thread.h"
#include "transport/reserved_names.h"

namespace tolk {
namespace {

constexpr std::uint32_t kHandshakeLimitMs = 10000;

constexpr std::array kLabels{"Pipe", "Tcp4", "Tcp6"};  // by Endpoint::Kind

}  // namespace

// Host.

ClientSide::ClientSide() : process_(platform::generation()) {}

// In a forked child nothing waits, not even for a lock: the thread that held it is not there.
bool ClientSide::of_this_process() const { return process_ == platform::generation(); }

bool ClientSide::isok() const { return of_this_process() && is_connected(session().get()); }

// From a successful connect until the server goes, or until the host's close has released the
// handlers.
bool ClientSide::is_connected(const ClientSession* current) const {
  const StatusOverride status = status_override_;
  if (status != StatusOverride::none) return status == StatusOverride::connected;
  if (current == nullptr) return false;
  const Phase now = current->phase();
  return now == Phase::live || now == Phase::close_asked || now == Phase::closed;
}

void ClientSide::write_server(int status) {
  status_override_ = status >= 0 ? StatusOverride::connected : StatusOverride::disconnected;
}

bool ClientSide::connect(Endpoint where) {
  const auto earlier = session();
  if (earlier && earlier->on_own_thread()) return isok();
  const std::lock_guard<std::mutex> one_attempt(lifecycle_);
  if (isok()) return true;
  if (const auto last = session()) last->wait_until_ended();
  return attempt(std::move(where));
}

bool ClientSide::attempt(Endpoint where) {
  const std::string shown = where.name;
  const auto session = std::make_shared<ClientSession>(*this, std::move(where));
  *session_.lock() = session;
  if (session->start_thread()) session->wait_until_decided();
  if (!isok()) {
    logger.formatted("cant connect: %s \n", shown.c_str());
    return isok();
  }
  logger.formatted("connected: %s \n", shown.c_str());
  if (!guarded_or(false, [this] { return CheckServer(); })) {
    logger.formatted("Check Server Version Error!\n");
    close();
    return false;
  }
  if (destroyed_) close();
  return isok();
}

// The reply is read where another thread's ClearRetvalMem cannot take it away.
bool ClientSide::CheckServer() {
  TolkParams version;
  version.AddKeyValueString(kKeyVersion, kVersionText);
  ResultTable::Expectation expected(results, platform::own_call_id());
  SendMsg(kMethodVersion, &version, 0, kHandshakeLimitMs);
  const auto reply = expected.reply();
  if (!reply) {
    logger.formatted("Check Server Version: timeout\n");
    return false;
  }
  const auto& content = *reply.get();
  const TolkValue* const theirs = content.find(kKeyVersion);
  const bool has_text = theirs != nullptr && theirs->IsString();
  const std::string shown(has_text ? theirs->GetString() : "");
  const TolkValue* const verdict = content.values.empty() ? nullptr : content.values[0];
  logger.formatted("Check Server Version: \nserver %s\nclient %s \n", shown.c_str(), kVersionText);
  return verdict != nullptr && verdict->IsBool() && verdict->GetBool();
}

// Loop.

void ClientSide::on_starting(const Endpoint& where) {
  logger.formatted("%s: %s\n", kLabels.at(static_cast<std::size_t>(where.kind)), kVersionText);
}

// On purpose: only the IPv4 transport tells which step of the setup failed.
void ClientSide::on_setup_failed(const Endpoint& where, SetupStep step) {
  if (where.kind != Endpoint::Kind::tcp4) return;
  switch (step) {
    case SetupStep::loop:
      return platform::print_line("uv_loop_init error");
    case SetupStep::stream:
      return platform::print_line("uv_tcp_init error");
    case SetupStep::address:
      return platform::print_line("uv_ip4_addr error");
    case SetupStep::connect:
      return platform::print_line("uv_tcp_connect error");
  }
}

void ClientSide::on_server_refused(const std::string& user) {
  logger.plain("Server refused: %s\n", user.c_str());
}

bool ClientSide::on_connected(uv_loop_t* loop, const Endpoint& where) {
  const bool swept = sweep_.started() || (sweep_.init(loop) && sweep_.start(SweepTimer::kStepMs));
  if (!swept) return false;
  status_override_ = StatusOverride::none;
  if (where.is_tcp()) platform::print_line("run");
  return true;
}

}  // namespace tolk
