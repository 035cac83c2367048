// None of this compiles; `check` expects the compiler to print each text after "says:".
#include <cstdint>
#include <map>
#include <tolk/tolk.hpp>

struct Unknown {};
enum class Wide : std::int64_t { one };

void refused(tolk::Client& client, tolk::Server& server) {
  // says: the wire carries signed 32-bit integers only. Pass an int
  (void)client.call<int>("m", std::int64_t{1});
  // says: so the enumeration needs an underlying type that fits
  (void)client.call<int>("m", Wide::one);
  // says: this type does not travel
  (void)client.call<int>("m", Unknown());
  // says: a duration is the limit of a call, and stands last
  (void)client.call<int>("m", std::chrono::seconds(1), 2);
  // says: a result needs to be owned
  (void)client.call<std::string_view>("m");
  // says: a posted call waits for nothing
  client.post("m", std::chrono::seconds(1));
  // says: whose parameters have types
  server.on("m", [](auto value) { return value; });
  // says: can't change its caller's arguments
  server.on("m", [](int& value) { value = 1; });
  // says: a handler takes a text as std::string or std::string_view
  server.on("m", [](const char* text) { (void)text; });
  // says: takes no other positional parameter
  server.on("m", [](const tolk::Values&, int) {});
}
