// The server of the demo: its methods, its calls to the clients, its close.
#include <tolk/tolk.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "report.h"
#include "roles.h"
#include "values.h"

namespace demo {
namespace {

constexpr int kStartAttempts = 20;
constexpr int kCallLimitMs = 5000;
constexpr int kNoAnswerLimitMs = 250;
constexpr std::chrono::seconds kEventLimit{20};
constexpr int kNobody = 1;  // no client ever has this id

class ServerRole {
 public:
  explicit ServerRole(Address first) : address_(std::move(first)), server_(CreateServer()) {
    server_->SetCustomReleaseEvent();  // the handlers stay in `methods_`
    add("hello", [this](int id, TolkParams* in, TolkParams*) { hello(id, in); });
    add("mirror", [](int, TolkParams* in, TolkParams* out) { mirror(in, out); });
    add("add",
        [](int, TolkParams* in, TolkParams* out) { out->AddInt(int_at(in, 0) + int_at(in, 1)); });
    add("note", [this](int, TolkParams* in, TolkParams*) { note(int_at(in, 0)); });
    add("notes", [this](int, TolkParams* in, TolkParams* out) { notes(int_at(in, 0), out); });
    add("wait_for_go", [this](int, TolkParams*, TolkParams*) { wait_for_go(); });
    add("go", [this](int, TolkParams*, TolkParams* out) { go(out); });
    add("roll_call", [this](int, TolkParams*, TolkParams* out) { roll_call(out); });
    add("keep", [](int, TolkParams* in, TolkParams* out) { give_back(in, out); });
    add("s_c_closed", [this](int id, TolkParams*, TolkParams*) { closed(id); });
  }

  std::string run(const std::string& command) {
    if (command == "start") return start();
    if (command == "stop") stop();
    return {};
  }

 private:
  void add(const char* name, Method::Function function) {
    server_->method(name, &methods_.emplace_back(std::move(function)));
  }

  std::string start() {
    Step step("server", "", "listens");
    bool listening = false;
    for (int i = 0; i < kStartAttempts && !listening; ++i) {
      if (i > 0) address_.name = std::to_string(std::stoi(address_.name) + 1);
      listening = listen();
    }
    step.stop();
    step.expect("listening", true, listening);
    step.shows(where());
    return listening ? address_.name : "";
  }

  bool listen() {
    const char* const name = address_.name.c_str();
    if (address_.transport == "pipe") return server_->InitTolkServer(name);
    if (address_.transport == "tcp4") return server_->InitTolkServerTcp4(address_.host(), name);
    return server_->InitTolkServerTcp6(address_.host(), name);
  }

  std::string where() const {
    if (address_.transport == "pipe") return "pipe " + address_.name;
    const std::string host = address_.host();
    return (address_.transport == "tcp6" ? "[" + host + "]" : host) + ":" + address_.name;
  }

  void hello(int id, TolkParams* in) {
    const std::lock_guard lock(mutex_);
    clients_[id] = text_at(in, 0);
  }

  void note(int value) {
    const std::lock_guard lock(mutex_);
    ++note_count_;
    note_sum_ += value;
    changed_.notify_all();
  }

  // Posted calls run concurrently, so this one may begin before the last of them has ended.
  void notes(int count, TolkParams* out) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kEventLimit, [&] { return note_count_ >= count; });
    out->AddInt(note_count_);
    out->AddInt(note_sum_);
  }

  void wait_for_go() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kEventLimit, [&] { return gate_open_; });
  }

  void go(TolkParams* out) {
    const std::lock_guard lock(mutex_);
    gate_open_ = true;
    changed_.notify_all();
    out->AddBool(true);
  }

  static void give_back(TolkParams* in, TolkParams* out) {
    const TolkValue* const file = in->GetValue(0);
    if (file == nullptr || !file->IsStream()) return;
    long size = 0;
    const char* const bytes = file->GetStream(size);
    out->AddStream(bytes, size);
    const std::string hash = digest({bytes, static_cast<std::size_t>(size)});
    out->AddKeyValueString("digest", hash.c_str());
  }

  void closed(int id) {
    const std::lock_guard lock(mutex_);
    gone_ += clients_.erase(id);
    changed_.notify_all();
  }

  // Runs on a worker while the client that asked for it waits, and calls that client too.
  void roll_call(TolkParams* out) {
    std::map<int, std::string> clients;
    {
      const std::lock_guard lock(mutex_);
      clients = clients_;
    }
    for (const auto& [id, name] : clients) call_by_id(id, name);
    if (!clients.empty()) call_without_answer(clients.begin()->first, clients.begin()->second);
    call_nobody();
    for (const auto& [id, name] : clients) out->AddString(name.c_str());
  }

  void call_by_id(int id, const std::string& name) {
    const int number = next_call_id();
    TolkParams arguments;
    arguments.AddInt(number);
    Step step("server", name, "SendMsg(" + std::to_string(id) + ", \"introduce\")");
    TolkParams* const reply =
        server_->SendMsg(id, "introduce", &arguments, next_call_id(), kCallLimitMs);
    step.stop();
    step.shows("\"" + text_at(reply, 0) + ", process " + std::to_string(int_at(reply, 1)) + "\"");
    step.expect("name", name, text_at(reply, 0));
    step.expect("number + 1", number + 1, int_at(reply, 2));
    server_->PostMsg(id, "ding", nullptr, next_call_id());
  }

  void call_without_answer(int id, const std::string& name) {
    Step step("server", name,
              "SendMsg(\"no_such_method\"), " + std::to_string(kNoAnswerLimitMs) + " ms");
    TolkParams* const reply =
        server_->SendMsg(id, "no_such_method", nullptr, next_call_id(), kNoAnswerLimitMs);
    const auto taken = step.stop();
    step.shows("null: clients don't answer that");
    step.expect("reply", std::string("null"), shown(reply));
    step.expect("waited for the timeout", true, taken.count() >= kNoAnswerLimitMs);
  }

  void call_nobody() {
    Step step("server", "nobody", "SendMsg(" + std::to_string(kNobody) + ", \"introduce\")");
    TolkParams* const reply =
        server_->SendMsg(kNobody, "introduce", nullptr, next_call_id(), kCallLimitMs);
    const auto taken = step.stop();
    step.shows("null, at once");
    step.expect("reply", std::string("null"), shown(reply));
    step.expect("did not wait", true, taken.count() < kCallLimitMs);
  }

  // One id for each call: a missing result cannot be mistaken for an earlier one.
  int next_call_id() { return ++last_call_id_; }

  void stop() {
    {
      Step step("server", "", "has heard each client leave");
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, kEventLimit, [&] { return clients_.empty(); });
      lock.unlock();
      wait_for_no_clients();
      step.stop();
      step.shows(std::to_string(gone_) + " gone, GetClientCount() " +
                 std::to_string(server_->GetClientCount()));
      step.expect("clients that left", std::size_t{4}, gone_);
      step.expect("clients left", 0, server_->GetClientCount());
    }
    Step step("server", "", "DestroyServer()");
    DestroyServer(server_);
    step.stop();
  }

  // The count is decremented right after the hook returns.
  void wait_for_no_clients() {
    const auto limit = std::chrono::steady_clock::now() + kEventLimit;
    while (server_->GetClientCount() > 0 && std::chrono::steady_clock::now() < limit) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  Address address_;
  IServer* const server_;
  std::deque<Method> methods_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int, std::string> clients_;
  std::size_t gone_ = 0;
  int note_count_ = 0;
  int note_sum_ = 0;
  bool gate_open_ = false;
  std::atomic<int> last_call_id_{1000};
};

}  // namespace

int server_role(const Address& first) {
  ServerRole role(first);
  return obey([&](const std::string& command) { return role.run(command); });
}

}  // namespace demo
