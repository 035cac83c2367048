#include "bench/calls/library_calls.h"

#include <tolk/tolk.h>

#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

namespace bench {
namespace {

constexpr int kAnswerLimitMs = 10000;
// Answers to posted calls refresh the result of the posting thread: the call that waits for them
// keeps its own elsewhere.
constexpr int kSettleCallId = 1;

bool connect(IClient& client, Transport transport, const std::string& name) {
  switch (transport) {
    case Transport::pipe:
      return client.InitTolkClient(name.c_str(), false);
    case Transport::tcp4:
      return client.InitTolkClientTcp4(loopback_of(transport), name.c_str(), false);
    case Transport::tcp6:
      return client.InitTolkClientTcp6(loopback_of(transport), name.c_str(), false);
  }
  return false;
}

void stamp_bytes(std::string& bytes, std::uint32_t stamp) {
  if (bytes.size() >= sizeof stamp) std::memcpy(bytes.data(), &stamp, sizeof stamp);
}

void add_bytes(TolkParams& block, const std::string& bytes) {
  block.AddStream(bytes.data(), static_cast<long>(bytes.size()));
}

bool is_echo(TolkParams* reply, const std::string& sent) {
  if (reply == nullptr) return false;
  if (sent.empty()) return reply->ParamsSize() == 0;
  const TolkValue* const value = reply->GetValue(0);
  if (value == nullptr || !value->IsStream()) return false;
  long size = 0;
  const char* const bytes = value->GetStream(size);
  return std::string_view(bytes, static_cast<std::size_t>(size)) == sent;
}

class LibraryCalls final : public Contestant {
 public:
  LibraryCalls(Form form, const LibraryClients& clients, std::size_t used, std::size_t payload)
      : form_(form), clients_(clients), used_(used), payload_(payload) {}

  bool exchange(std::size_t caller, std::uint32_t stamp) override {
    thread_local std::string bytes;
    if (bytes.size() != payload_) bytes.assign(payload_, 'x');
    stamp_bytes(bytes, stamp);
    IClient& client = clients_[caller % used_];
    if (payload_ == 0) return is_echo(send(client, nullptr), bytes);
    TolkParams arguments;
    add_bytes(arguments, bytes);
    return is_echo(send(client, &arguments), bytes);
  }

 private:
  TolkParams* send(IClient& client, TolkParams* arguments) const {
    return form_ == Form::send_msg ? client.SendMsg("echo", arguments, 0, kAnswerLimitMs)
                                   : client.SendMsgFast("echo", arguments, 0, kAnswerLimitMs);
  }

  const Form form_;
  const LibraryClients& clients_;
  const std::size_t used_;
  const std::size_t payload_;
};

class LibraryPosts final : public Contestant {
 public:
  LibraryPosts(IClient& client, std::size_t count, std::size_t payload)
      : client_(client), count_(count), payload_(payload) {}

  std::size_t calls_each() const override { return count_; }

  bool exchange(std::size_t, std::uint32_t stamp) override {
    std::string bytes(payload_, 'x');
    stamp_bytes(bytes, stamp);
    for (std::size_t i = 0; i < count_; ++i) {
      TolkParams arguments;
      add_bytes(arguments, bytes);
      client_.PostMsgFast("note", &arguments, 0);
    }
    TolkParams expected;
    expected.AddInt(static_cast<int>(count_));
    TolkParams* const reply =
        client_.SendMsgFast("settle", &expected, kSettleCallId, kAnswerLimitMs);
    return reply != nullptr && reply->GetValue(0) != nullptr && reply->GetValue(0)->GetBool();
  }

 private:
  IClient& client_;
  const std::size_t count_;
  const std::size_t payload_;
};

class LibraryLargeCalls final : public Contestant {
 public:
  LibraryLargeCalls(IClient& client, std::size_t payload) : client_(client), bytes_(payload, 'x') {}

  bool exchange(std::size_t, std::uint32_t stamp) override {
    stamp_bytes(bytes_, stamp);
    TolkParams arguments;
    add_bytes(arguments, bytes_);
    TolkParams* const reply = client_.SendMsgEx("length", &arguments, 0, kAnswerLimitMs);
    const TolkValue* const length = reply == nullptr ? nullptr : reply->GetValue(0);
    return length != nullptr && length->GetInt() == static_cast<int>(bytes_.size());
  }

 private:
  IClient& client_;
  std::string bytes_;
};

}  // namespace

LibraryClients::LibraryClients(Transport transport, const std::string& name, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    IClient* const client = clients_.emplace_back(CreateClient());
    char text[] = "";
    client->log(text, 0);  // no lines between the tables
    if (!connect(*client, transport, name)) throw std::runtime_error("the client can't connect");
  }
}

LibraryClients::~LibraryClients() {
  std::vector<std::thread> threads;
  for (IClient* const client : clients_) threads.emplace_back([client] { DestroyClient(client); });
  for (std::thread& thread : threads) thread.join();
}

std::unique_ptr<Contestant> library_calls(Form form, const LibraryClients& clients,
                                          std::size_t used, std::size_t payload) {
  return std::make_unique<LibraryCalls>(form, clients, used, payload);
}

std::unique_ptr<Contestant> library_posts(const LibraryClients& clients, std::size_t count,
                                          std::size_t payload) {
  return std::make_unique<LibraryPosts>(clients[0], count, payload);
}

std::unique_ptr<Contestant> library_large_calls(const LibraryClients& clients,
                                                std::size_t payload) {
  return std::make_unique<LibraryLargeCalls>(clients[0], payload);
}

}  // namespace bench
