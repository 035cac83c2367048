// Thrift: a server with a thread for each connection, buffered transport, binary protocol. A
// connection cannot be shared, so each caller has one. Posts are oneway calls.
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <thrift/transport/TSocket.h>

#include "Echo.h"
#include "bench/calls/contestant.h"
#include "bench/peers/must.h"

namespace bench {
namespace {

namespace protocol = apache::thrift::protocol;
namespace server = apache::thrift::server;
namespace transport = apache::thrift::transport;

class Service final : public rpc::EchoIf {
 public:
  explicit Service(Shared& shared) : shared_(shared) {}

  void call(std::string& answer, const std::string& data) override { answer = data; }
  std::int64_t bulk(const std::string& data) override {
    return static_cast<std::int64_t>(data.size());
  }
  void post(const std::string&) override { ++shared_.handled; }

 private:
  Shared& shared_;
};

// Tells when the server listens.
class Start final : public server::TServerEventHandler {
 public:
  explicit Start(Shared& shared) : shared_(shared) {}
  void preServe() override { shared_.listening = true; }

 private:
  Shared& shared_;
};

class ThriftClient final : public Client {
 public:
  ThriftClient(const Place& place, std::size_t callers) {
    while (callers_.size() < callers) {
      const auto socket = place.transport == Transport::pipe
                              ? std::make_shared<transport::TSocket>(place.path)
                              : std::make_shared<transport::TSocket>(place.host(), place.port);
      const auto buffered = std::make_shared<transport::TBufferedTransport>(socket);
      buffered->open();
      callers_.push_back(
          std::make_unique<rpc::EchoClient>(std::make_shared<protocol::TBinaryProtocol>(buffered)));
    }
  }

  bool echo(std::size_t caller, const std::string& payload) override {
    std::string answer;
    callers_[caller]->call(answer, payload);
    return answer == payload;
  }

  bool bulk(std::string_view bytes) override {
    return callers_[0]->bulk(std::string(bytes)) == static_cast<std::int64_t>(bytes.size());
  }

  bool post(const std::string& payload) override {
    callers_[0]->post(payload);
    return true;
  }

 private:
  std::vector<std::unique_ptr<rpc::EchoClient>> callers_;
};

class Thrift final : public Contestant {
 public:
  void serve(const Place& place, Shared& shared) override {
    const auto socket = place.transport == Transport::pipe
                            ? std::make_shared<transport::TServerSocket>(place.path)
                            : std::make_shared<transport::TServerSocket>(place.host(), place.port);
    server::TThreadedServer threads(
        std::make_shared<rpc::EchoProcessor>(std::make_shared<Service>(shared)), socket,
        std::make_shared<transport::TBufferedTransportFactory>(),
        std::make_shared<protocol::TBinaryProtocolFactory>());
    threads.setServerEventHandler(std::make_shared<Start>(shared));
    threads.serve();
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t callers) override {
    return std::make_unique<ThriftClient>(place, callers);
  }
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Thrift contestant;
  return bench::run_contestant(argc, argv, contestant);
}
