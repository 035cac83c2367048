// gRPC: the synchronous interface, one channel that all callers share. Posts are a client stream.
#include <grpcpp/grpcpp.h>

#include "bench/calls/contestant.h"
#include "bench/peers/must.h"
#include "echo.grpc.pb.h"

namespace bench {
namespace {

constexpr int kNoLimit = -1;

std::string address_of(const Place& place) {
  if (place.transport == Transport::pipe) return "unix:" + place.path;
  return place.host_and_port();
}

class Service final : public rpc::Echo::Service {
 public:
  explicit Service(Shared& shared) : shared_(shared) {}

  grpc::Status Call(grpc::ServerContext*, const rpc::Bytes* in, rpc::Bytes* out) override {
    out->set_data(in->data());
    return grpc::Status::OK;
  }
  grpc::Status Bulk(grpc::ServerContext*, const rpc::Bytes* in, rpc::Count* out) override {
    out->set_count(in->data().size());
    return grpc::Status::OK;
  }
  grpc::Status Posts(grpc::ServerContext*, grpc::ServerReader<rpc::Bytes>* in,
                     rpc::Count*) override {
    for (rpc::Bytes message; in->Read(&message);) ++shared_.handled;
    return grpc::Status::OK;
  }

 private:
  Shared& shared_;
};

class GrpcClient final : public Client {
 public:
  explicit GrpcClient(const Place& place) {
    grpc::ChannelArguments arguments;
    arguments.SetMaxReceiveMessageSize(kNoLimit);
    arguments.SetMaxSendMessageSize(kNoLimit);
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);  // a connection for each client
    stub_ = rpc::Echo::NewStub(grpc::CreateCustomChannel(
        address_of(place), grpc::InsecureChannelCredentials(), arguments));
  }

  bool echo(std::size_t, const std::string& payload) override {
    grpc::ClientContext context;
    rpc::Bytes in;
    rpc::Bytes out;
    in.set_data(payload);
    return stub_->Call(&context, in, &out).ok() && out.data() == payload;
  }

  bool bulk(std::string_view bytes) override {
    grpc::ClientContext context;
    rpc::Bytes in;
    rpc::Count out;
    in.set_data(bytes.data(), bytes.size());
    return stub_->Bulk(&context, in, &out).ok() && out.count() == bytes.size();
  }

  bool post(const std::string& payload) override {
    if (!posts_) {
      posts_context_ = std::make_unique<grpc::ClientContext>();
      posts_ = stub_->Posts(posts_context_.get(), &posted_);
    }
    rpc::Bytes message;
    message.set_data(payload);
    return posts_->Write(message);
  }

  bool flush_posts() override { return posts_->WritesDone() && posts_->Finish().ok(); }

 private:
  std::unique_ptr<rpc::Echo::Stub> stub_;
  std::unique_ptr<grpc::ClientContext> posts_context_;
  rpc::Count posted_;
  std::unique_ptr<grpc::ClientWriter<rpc::Bytes>> posts_;
};

class Grpc final : public Contestant {
 public:
  void serve(const Place& place, Shared& shared) override {
    Service service(shared);
    grpc::ServerBuilder builder;
    builder.SetMaxReceiveMessageSize(kNoLimit);
    builder.SetMaxSendMessageSize(kNoLimit);
    builder.AddListeningPort(address_of(place), grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    must(server != nullptr, "the server cannot listen");
    shared.listening = true;
    server->Wait();
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t) override {
    return std::make_unique<GrpcClient>(place);
  }
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  bench::Grpc contestant;
  return bench::run_contestant(argc, argv, contestant);
}
