// The C interface with hosts that use the C++ layer.
#include "raw_ends.h"
#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

class CapiAndLayer : public OverTransports {};
TOLK_CAPI_OVER_TRANSPORTS(CapiAndLayer);

TEST_P(CapiAndLayer, ALayerServerServesACClient) {
  Counter posted;
  Server server;
  server.on("twice", [](std::string text) { return text + text; });
  server.on("fail", []() -> std::string { throw std::runtime_error("because"); });
  server.on("note", [posted]() mutable { posted.add(); });
  server.listen(layered(address));
  const Methods methods;
  const auto client = c_client(address, methods);
  ASSERT_NE(client, nullptr);
  EXPECT_EQ(call_client(client.get(), "twice", "ab").text, "abab");
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_client_call(client.get(), "fail", nullptr, 0, nullptr, &error), TOLK_FAILED);
  EXPECT_STREQ(tolk_error_reason(error), "because");
  tolk_error_free(error);
  EXPECT_EQ(tolk_client_call(client.get(), "twice", nullptr, 0, nullptr, &error),
            TOLK_WRONG_ARGUMENTS);
  EXPECT_STREQ(tolk_error_reason(error), "takes 1 argument, got 0");
  tolk_error_free(error);
  EXPECT_EQ(call_client(client.get(), "absent", "").status, TOLK_NO_METHOD);
  EXPECT_EQ(tolk_client_post(client.get(), "note", nullptr, 0, nullptr), TOLK_OK);
  EXPECT_TRUE(posted.wait_for(1));
}

TEST_P(CapiAndLayer, ALayerServerCallsACClient) {
  Server server;
  server.on("here", [](const Caller& caller) { return caller.id(); });
  server.listen(layered(address));
  Counter posted;
  Methods methods;
  methods.add_echo();
  methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 3, "because", nullptr);
  });
  methods.add("note", [&](tolk_request* request) {
    posted.add();
    tolk_request_answer(request, nullptr);
  });
  auto client = c_client(address, methods);
  ASSERT_NE(client, nullptr);
  tolk_block* result = nullptr;
  ASSERT_EQ(tolk_client_call(client.get(), "here", nullptr, 0, &result, nullptr), TOLK_OK);
  const auto id = static_cast<std::uint64_t>(tolk_block_int(result, 0));
  tolk_block_free(result);
  EXPECT_EQ(server.call<std::string>(id, "echo", "ab").value(), "ab");
  const auto failed = server.call<std::string>(id, "fail");
  EXPECT_EQ(failed.error().code(), Errc::handler_failed);
  EXPECT_EQ(failed.error().detail(), "because");
  EXPECT_EQ(server.call<int>(id, "absent").error().code(), Errc::no_such_method);
  EXPECT_TRUE(server.post(id, "note"));
  EXPECT_TRUE(posted.wait_for(1));
  client.reset();
}

TEST_P(CapiAndLayer, ACServerServesALayerClient) {
  Counter posted;
  Methods methods;
  methods.add_echo();
  methods.add("fail", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_FAILED, 3, "because", nullptr);
  });
  methods.add("wrong", [](tolk_request* request) {
    tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "two numbers", nullptr);
  });
  methods.add("note", [&](tolk_request* request) {
    posted.add();
    tolk_request_answer(request, nullptr);
  });
  auto server = c_server(address, methods);
  ASSERT_NE(server, nullptr);
  Client client = connect(layered(address));
  EXPECT_EQ(client.call<std::string>("echo", "ab").value(), "ab");
  EXPECT_EQ(client.call<std::string>("fail").error().detail(), "because");
  EXPECT_EQ(client.call<std::string>("wrong").error().code(), Errc::wrong_arguments);
  EXPECT_EQ(client.call<int>("absent").error().code(), Errc::no_such_method);
  EXPECT_TRUE(client.describe());
  EXPECT_TRUE(client.post("note"));
  EXPECT_TRUE(posted.wait_for(1));
  server.reset();
  EXPECT_FALSE(client.call<std::string>("echo", "ab"));
}

TEST_P(CapiAndLayer, ACServerCallsALayerClient) {
  const Methods methods;
  const auto server = c_server(address, methods);
  ASSERT_NE(server, nullptr);
  Counter posted;
  Client client = connect(layered(address));
  client.on("twice", [](std::string text) { return text + text; });
  client.on("fail", []() -> std::string { throw std::runtime_error("because"); });
  client.on("note", [posted]() mutable { posted.add(); });
  uint64_t id = 0;
  ASSERT_EQ(tolk_server_clients(server.get(), &id, 1), 1U);
  EXPECT_EQ(call_server(server.get(), id, "twice", "ab").text, "abab");
  tolk_error* error = nullptr;
  EXPECT_EQ(tolk_server_call(server.get(), id, "fail", nullptr, 0, nullptr, &error), TOLK_FAILED);
  EXPECT_STREQ(tolk_error_reason(error), "because");
  tolk_error_free(error);
  EXPECT_EQ(tolk_server_post(server.get(), id, "note", nullptr, 0, nullptr), TOLK_OK);
  EXPECT_TRUE(posted.wait_for(1));
}

}  // namespace
}  // namespace tolk::test
