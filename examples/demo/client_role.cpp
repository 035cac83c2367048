// A client of the demo.
#include <tolk/tolk.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "process.h"
#include "report.h"
#include "roles.h"
#include "values.h"

namespace demo {
namespace {

constexpr int kCallLimitMs = 5000;
constexpr int kRollCallLimitMs = 30000;
constexpr int kShortLimitMs = 300;
constexpr int kLateMs = 2000;
constexpr int kPosts = 100;
constexpr int kCrowdThreads = 2;
constexpr int kCrowdCalls = 250;  // for each thread
constexpr std::chrono::seconds kEventLimit{20};
// Separate call ids for calls whose answers may come late, because results are kept by call id.
constexpr int kPostId = 7;
constexpr int kTimeOutId = 8;

class ClientRole {
 public:
  ClientRole(std::string name, Address server, std::size_t file_bytes)
      : name_(std::move(name)),
        server_(std::move(server)),
        file_bytes_(file_bytes),
        client_(CreateClient()) {
    client_->method("introduce", new Method([this](int, TolkParams* in, TolkParams* out) {
                      introduce(in, out);
                    }));
    client_->method("ding", new Method([this](int, TolkParams*, TolkParams*) { ding(); }));
  }
  ~ClientRole() { DestroyClient(client_); }
  ClientRole(const ClientRole&) = delete;
  ClientRole& operator=(const ClientRole&) = delete;

  std::string run(const std::string& command) {
    static const std::map<std::string, void (ClientRole::*)()> commands{
        {"connect", &ClientRole::connect},
        {"connect_refused", &ClientRole::connect_refused},
        {"connect_gone", &ClientRole::connect_gone},
        {"calls", &ClientRole::calls},
        {"crowd", &ClientRole::crowd},
        {"roll_call", &ClientRole::roll_call},
        {"file", &ClientRole::file},
        {"close", &ClientRole::close}};
    const auto at = commands.find(command);
    if (at != commands.end()) (this->*at->second)();
    return {};
  }

 private:
  // Called by the server.

  void introduce(TolkParams* in, TolkParams* out) {
    out->AddString(name_.c_str());
    out->AddInt(static_cast<int>(own_process_id()));
    out->AddInt(int_at(in, 0) + 1);
  }

  void ding() {
    const std::lock_guard lock(mutex_);
    ++dings_;
    changed_.notify_all();
  }

  // Connecting.

  bool init(IClient* client) const {
    const char* const name = server_.name.c_str();
    if (server_.transport == "pipe") return client->InitTolkClient(name, false);
    if (server_.transport == "tcp4") {
      return client->InitTolkClientTcp4(server_.host(), name, false);
    }
    return client->InitTolkClientTcp6(server_.host(), name, false);
  }

  void connect() {
    Step step(name_, "server", "connects");
    const bool connected = init(client_);
    step.stop();
    step.shows("connected, versions agree");
    step.expect("connected", true, connected);
    step.expect("isok()", true, client_->isok());
    TolkParams arguments;
    arguments.AddString(name_.c_str());
    step.expect("hello", std::string("a reply"),
                shown(client_->SendMsg("hello", &arguments, 0, kCallLimitMs)));
  }

  void connect_refused() {
    Step step(name_, "server", "connects");
    const bool connected = init(client_);
    step.stop();
    step.shows("false: the versions differ");
    step.expect("connected", false, connected);
    step.expect("isok()", false, client_->isok());
  }

  void connect_gone() {
    IClient* const late = CreateClient();
    {
      Step step(name_, "server", "connects once more, as a new client");
      const bool connected = init(late);
      step.stop();
      step.shows("false: nobody listens");
      step.expect("connected", false, connected);
    }
    DestroyClient(late);
  }

  // Calls.

  void calls() {
    call_every_type();
    call_fast();
    post();
    call_unknown();
    call_too_slow();
  }

  void call_every_type() {
    TolkParams arguments;
    add_values(arguments);
    Step step(name_, "server", "SendMsg(\"mirror\")");
    TolkParams* const reply = client_->SendMsg("mirror", &arguments, 0, kCallLimitMs);
    step.stop();
    step.shows("a value of every type, mirrored:");
    const auto& rows = mirror_rows();
    for (std::size_t i = 0; i < rows.size(); ++i) {
      const std::string came = mirrored(reply, i);
      std::string line = rows[i].type;
      line.resize(15, ' ');
      line += rows[i].sent;
      line.resize(45, ' ');
      step.detail(line + came);
      step.expect(rows[i].type, rows[i].expected, came);
    }
  }

  void call_fast() {
    TolkParams arguments;
    arguments.AddInt(19);
    arguments.AddInt(23);
    Step step(name_, "server", "SendMsgFast(\"add\", 19, 23)");
    TolkParams* const reply = client_->SendMsgFast("add", &arguments, 0, kCallLimitMs);
    step.stop();
    step.shows(value_at(reply, 0));
    step.expect("sum", std::string("42"), value_at(reply, 0));
  }

  void post() {
    {
      Step step(name_, "server", std::to_string(kPosts) + " × PostMsg, PostMsgFast(\"note\")");
      for (int i = 1; i <= kPosts; ++i) {
        TolkParams arguments;
        arguments.AddInt(i);
        TolkParams* const nothing = i % 2 == 0 ? client_->PostMsg("note", &arguments, kPostId)
                                               : client_->PostMsgFast("note", &arguments, kPostId);
        step.expect("result of a post", std::string("null"), shown(nothing));
      }
      step.stop();
      step.shows("on their way");
    }
    TolkParams arguments;
    arguments.AddInt(kPosts);
    Step step(name_, "server", "SendMsg(\"notes\")");
    TolkParams* const reply = client_->SendMsg("notes", &arguments, 0, kCallLimitMs);
    step.stop();
    step.shows(value_at(reply, 0) + " arrived, sum " + value_at(reply, 1));
    step.expect("notes", kPosts, int_at(reply, 0));
    step.expect("sum of the notes", kPosts * (kPosts + 1) / 2, int_at(reply, 1));
  }

  void call_unknown() {
    Step step(name_, "server", "SendMsg(\"no_such_method\")");
    TolkParams* const reply = client_->SendMsg("no_such_method", nullptr, 0, kCallLimitMs);
    step.stop();
    step.shows(value_at(reply, 0));
    step.expect("answer", std::string("\"no event: no_such_method\""), value_at(reply, 0));
  }

  // The method waits for "go", which is sent only after this call has timed out.
  void call_too_slow() {
    {
      Step step(name_, "server",
                "SendMsg(\"wait_for_go\"), " + std::to_string(kShortLimitMs) + " ms");
      TolkParams* const reply = client_->SendMsg("wait_for_go", nullptr, kTimeOutId, kShortLimitMs);
      const auto taken = step.stop();
      step.shows("null: timeout after " + std::to_string(taken.count()) + " ms");
      step.expect("reply", std::string("null"), shown(reply));
      step.expect("not before its time", true, taken.count() >= kShortLimitMs);
      step.expect("not long after it", true, taken.count() < kShortLimitMs + kLateMs);
    }
    Step step(name_, "server", "SendMsg(\"go\")");
    TolkParams* const reply = client_->SendMsg("go", nullptr, 0, kCallLimitMs);
    step.stop();
    step.shows(value_at(reply, 0) + ": the connection lives on");
    step.expect("answer", std::string("true"), value_at(reply, 0));
  }

  void crowd() {
    const int all = kCrowdThreads * kCrowdCalls;
    Step step(name_, "server",
              std::to_string(all) + " × SendMsgFast(\"add\"), " + std::to_string(kCrowdThreads) +
                  " threads");
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    threads.reserve(kCrowdThreads);
    for (int i = 0; i < kCrowdThreads; ++i) {
      threads.emplace_back([this, &right, first = i * kCrowdCalls] { add_many(first, right); });
    }
    for (std::thread& thread : threads) thread.join();
    step.stop();
    step.shows(std::to_string(right) + " right sums");
    step.expect("right sums", all, right.load());
  }

  void add_many(int first, std::atomic<int>& right) {
    for (int i = first; i < first + kCrowdCalls; ++i) {
      TolkParams arguments;
      arguments.AddInt(i);
      arguments.AddInt(2 * i);
      TolkParams* const reply = client_->SendMsgFast("add", &arguments, 0, kCallLimitMs);
      if (value_at(reply, 0) == std::to_string(3 * i)) ++right;
    }
  }

  void roll_call() {
    {
      Step step(name_, "server", "SendMsg(\"roll_call\")");
      TolkParams* const reply = client_->SendMsg("roll_call", nullptr, 0, kRollCallLimitMs);
      step.stop();
      const int count = reply == nullptr ? 0 : reply->ParamsSize();
      step.shows(std::to_string(count) + " clients have answered");
      step.expect("clients", 4, count);
    }
  }

  // Large data.

  void file() {
    const std::string original = name_ + ".bin";
    write_file(original, noise(file_bytes_));
    const std::string sent = digest(read_file(original));
    TolkParams arguments;
    {
      const std::string bytes = read_file(original);
      arguments.AddStream(bytes.data(), static_cast<long>(bytes.size()));
    }
    announce_transfer();
    Step step(name_, "server", "SendMsgEx(\"keep\", file)");
    TolkParams* const reply = client_->SendMsgEx("keep", &arguments, 0, 0);
    const auto taken = step.stop();
    const std::string returned = name_ + ".back.bin";
    write_file(returned, stream_at_0(reply));
    const std::string came = digest(read_file(returned));
    step.shows(reply == nullptr ? "null" : transfer_text(taken.count() + 1));
    step.detail("digest sent     " + sent);
    step.detail("digest there    " + text_of_digest(reply));
    step.detail("digest returned " + came);
    step.expect("digest at the server", sent, text_of_digest(reply));
    step.expect("digest of the file that returned", sent, came);
    step.expect("bytes left in the arguments", 0, arguments.Size());
    std::remove(original.c_str());
    std::remove(returned.c_str());
    client_->ClearRetvalMem();
  }

  std::string transfer_text(std::chrono::milliseconds::rep milliseconds) const {
    const auto mebibytes = static_cast<std::int64_t>(file_bytes_ >> 20);
    return std::to_string(mebibytes) + " MiB there and back, " +
           std::to_string(2000 * mebibytes / milliseconds) + " MiB/s";
  }

  void announce_transfer() const {
    Event begins;
    begins.kind = Event::Kind::transfer;
    begins.bytes = 2 * file_bytes_;
    send(begins);
  }

  static std::string text_of_digest(TolkParams* reply) {
    const TolkValue* const value = reply == nullptr ? nullptr : reply->GetMap("digest");
    return value != nullptr && value->IsString() ? value->GetString() : "none";
  }

  static std::string stream_at_0(TolkParams* reply) {
    const TolkValue* const value = reply == nullptr ? nullptr : reply->GetValue(0);
    if (value == nullptr || !value->IsStream()) return {};
    long size = 0;
    const char* const bytes = value->GetStream(size);
    return {bytes, static_cast<std::size_t>(size)};
  }

  static void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  }

  static std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    const std::streamoff size = file ? std::streamoff{file.tellg()} : 0;
    std::string bytes(static_cast<std::size_t>(size), '\0');
    file.seekg(0);
    file.read(bytes.data(), static_cast<std::streamsize>(size));
    return bytes;
  }

  // Closing.

  void close() {
    Step step(name_, "server", "close()");
    step.expect("posts of the server", 1, wait_for_ding());
    client_->close();
    step.stop();
    step.expect("isok()", false, client_->isok());
    step.expect("a call after it", std::string("null"),
                shown(client_->SendMsg("add", nullptr, 0, kCallLimitMs)));
    step.shows("closed; a call after it gives null");
  }

  int wait_for_ding() {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kEventLimit, [&] { return dings_ > 0; });
    return dings_;
  }

  const std::string name_;
  const Address server_;
  const std::size_t file_bytes_;
  IClient* const client_;
  std::mutex mutex_;
  std::condition_variable changed_;
  int dings_ = 0;
};

}  // namespace

int client_role(const std::string& name, const Address& server, std::size_t file_bytes) {
  ClientRole role(name, server, file_bytes);
  return obey([&](const std::string& command) { return role.run(command); });
}

}  // namespace demo
