// None of this compiles; `check` expects the compiler to print each text after "says:".
#include <cstdint>
#include <tolk/tolk.hpp>

struct Unknown {};
struct Seventeen {
  int a, b, c, d, e, f, g, h, i, j, k, l, m, n, o, p, q;
};
struct Base {
  int base;
};
struct Derived : Base {
  int own;
};
class WithoutDefault {
 public:
  explicit WithoutDefault(int v) : value(v) {}
  int value;
};
TOLK_FIELDS(WithoutDefault, value)

void refused(tolk::Client& client, tolk::Server& server) {
  // says: does_travel() [with Type = Unknown]
  // says: this type does not travel (see the Type above)
  // says: write TOLK_FIELDS(Type, its fields); for another type, specialise tolk::Converter<Type>
  (void)client.call<int>("m", Unknown());
  // says: a struct of more than 16 members needs TOLK_FIELDS
  (void)client.call("m", Seventeen());
  // says: The struct needs TOLK_FIELDS.
  (void)client.call("m", Derived());
  // says: does_arrive() [with Type = WithoutDefault]
  // says: a type that is received needs a constructor without arguments
  (void)client.call<WithoutDefault>("m");
  server.on("m", [](WithoutDefault value) { (void)value; });
  // says: two alternatives of this variant look alike to the receiver
  (void)client.call<int>("m", std::variant<int, std::int64_t>());
  // says: needs to be owned
  (void)client.call<std::string_view>("m");
  // says: a posted call waits for nothing
  client.post("m", std::chrono::seconds(1));
  // says: what is sent are bytes or a text
  (void)client.send("m", std::vector<int>());
  // says: whose parameters have types
  server.on("m", [](auto value) { return value; });
  // says: can't change its caller's arguments
  server.on("m", [](int& value) { value = 1; });
  // says: a handler takes a text as std::string or std::string_view
  server.on("m", [](const char* text) { (void)text; });
  // says: takes no other positional parameter
  server.on("m", [](const tolk::Values&, int) {});
  // says: where data go is a tolk::Sink
  server.on_data(
      "m", [] { return 1; }, [] {});
}
