// Transfers to and from files and functions, both ways.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/layer/joined.h"

namespace tolk::test {
namespace {

namespace fs = std::filesystem;

class LayerFiles : public JoinedTest {
 protected:
  LayerFiles() { fs::create_directories(folder_); }
  ~LayerFiles() override { fs::remove_all(folder_); }

  fs::path path(const std::string& name) const { return folder_ / name; }
  fs::path file_of(const std::string& name, std::size_t size) const {
    std::ofstream(path(name), std::ios::binary) << content(size);
    return path(name);
  }
  static std::string content(std::size_t size) {
    std::string text(size, 0);
    for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>(i * 31 + i / 999);
    return text;
  }
  static std::string read(const fs::path& from) {
    std::ostringstream text;
    text << std::ifstream(from, std::ios::binary).rdbuf();
    return text.str();
  }

 private:
  const fs::path folder_ = fs::temp_directory_path() / ("tolk" + fresh().text().substr(5));
};

constexpr std::size_t kSize = 3'000'001;

TEST_F(LayerFiles, FilesGoBothWays) {
  server.on_data(
      "upload",
      [this](const Caller& caller, Incoming data, const std::string& name) {
        EXPECT_EQ(caller.method(), "upload");
        EXPECT_EQ(data.total, kSize);
        return to_file(path(name));
      },
      [](const std::string& name) { return "stored " + name; });
  server.on("download", [this](const std::string& name) {
    return std::pair(fs::file_size(path(name)), from_file(path(name)));
  });
  const fs::path sent = file_of("sent", kSize);
  EXPECT_EQ(client.send<std::string>("upload", from_file(sent), nullptr, "kept").value(),
            "stored kept");
  EXPECT_EQ(read(path("kept")), content(kSize));
  std::uint64_t done = 0;
  const auto size = client.fetch<std::uint64_t>(
      "download", to_file(path("back")), [&](Progress p) { done = p.done(); }, "kept");
  EXPECT_EQ(size.value(), kSize);
  EXPECT_EQ(done, kSize);
  EXPECT_EQ(read(path("back")), content(kSize));
  // Without a sink, the data are the first result.
  server.on("plain download", [this]() -> Source { return from_file(path("kept")); });
  EXPECT_EQ(client.call<std::string>("plain download").value(), content(kSize));
}

TEST_F(LayerFiles, WhatIsNotAcceptedIsNotStored) {
  server.on_data(
      "refuse", [](Incoming) -> Sink { throw std::runtime_error("not now"); }, [] {});
  EXPECT_EQ(client.send("refuse", content(kSize)).error().code(), Errc::handler_failed);
  server.on_data(
      "keep", [this](Incoming, int) { return to_file(path("never")); }, [](int) {});
  EXPECT_EQ(client.send("keep", content(kSize), nullptr, "x").error().code(),
            Errc::wrong_arguments);
  EXPECT_EQ(client
                .send(
                    "keep", content(kSize),
                    [](Progress p) {
                      if (p.done() > 0) p.cancel();
                    },
                    1)
                .error()
                .code(),
            Errc::cancelled);
  EXPECT_TRUE(eventually([&] { return !fs::exists(path("never")); }));
  EXPECT_EQ(error_of([&] { from_file(path("absent")); }).code(), Errc::file);
  EXPECT_EQ(error_of([&] { to_file(path("absent") / "x"); }).code(), Errc::file);
}

TEST_F(LayerFiles, FunctionsMakeAndTakeData) {
  std::string taken;
  server.on_data(
      "take",
      [&](Incoming) {
        taken.clear();
        return to_function([&](std::span<const std::byte> piece) {
          if (piece.size() > 1'000'000) throw std::runtime_error("too much");
          taken.append(reinterpret_cast<const char*>(piece.data()), piece.size());
          if (taken.ends_with("stop")) throw std::runtime_error("stopped");
        });
      },
      [&] { return taken.size(); });
  const std::string data = content(kSize);
  std::size_t at = 0;
  const auto make = [&](std::span<std::byte> to) {
    const std::size_t size = std::min(to.size(), data.size() - at);
    std::copy_n(reinterpret_cast<const std::byte*>(data.data()) + at, size, to.begin());
    at += size;
    return size;
  };
  EXPECT_EQ(client.send<std::size_t>("take", from_function(kSize, make)).value(), kSize);
  EXPECT_EQ(taken, data);
  EXPECT_EQ(client.send("take", "stop").error().detail(), "stopped");
  const auto broken = [](std::span<std::byte>) -> std::size_t { throw 1; };
  EXPECT_EQ(client.send("take", from_function(5, broken)).error().code(), Errc::file);
}

TEST_F(LayerFiles, ServersSendToClients) {
  client.on("store", [](const std::string& data) { return data.size(); });
  client.on("load", [] { return from_bytes(bytes(kSize)); });
  const ClientId id = server.clients().at(0);
  EXPECT_EQ(server.send<std::size_t>(id, "store", content(kSize)).value(), kSize);
  std::size_t got = 0;
  EXPECT_TRUE(server.fetch(id, "load", to_function([&](auto piece) { got += piece.size(); })));
  EXPECT_EQ(got, kSize);
}

TEST_F(LayerFiles, ArgumentsThatCannotTravelEndNothingElse) {
  const auto too_long = std::chrono::hours(3'000'000);
  const fs::path file = file_of("sent", 1);
  EXPECT_EQ(error_of([&] { (void)client.send("any", "data", nullptr, too_long, 1s); }).code(),
            Errc::misuse);
  EXPECT_EQ(
      error_of([&] { (void)client.send("any", from_file(file), nullptr, too_long, 1s); }).code(),
      Errc::misuse);
  EXPECT_EQ(error_of([&] {
              (void)client.fetch("any", to_file(path("new")), nullptr, too_long, 1s);
            }).code(),
            Errc::misuse);
  EXPECT_FALSE(fs::exists(path("new")));
}

TEST_F(LayerFiles, ExceptionsOfProgressComeOut) {
  server.on("size", [](const std::string& data) { return data.size(); });
  const auto broken = [](Progress) { throw std::runtime_error("no window"); };
  EXPECT_THROW((void)client.send("size", content(kSize), broken), std::runtime_error);
  EXPECT_EQ(client.send<std::size_t>("size", content(kSize)).value(), kSize);
}

}  // namespace
}  // namespace tolk::test
