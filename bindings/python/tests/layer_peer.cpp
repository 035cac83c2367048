// A peer with the C++ layer, for the tests of the Python package.
// usage: layer_peer serve|call ADDRESS
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tolk/tolk.hpp>
#include <vector>

struct Point {
  double x = 0, y = 0;
  std::optional<std::string> name = {};
};
template <>
inline constexpr auto tolk::describe<Point> = tolk::fields("x", &Point::x, "y", &Point::y, "name",
                                                           &Point::name);

namespace {

Point middle_of(const std::vector<Point>& points) {
  Point sum;
  for (const Point& point : points) sum = {sum.x + point.x, sum.y + point.y};
  const double count = static_cast<double>(points.size());
  return {sum.x / count, sum.y / count, "middle"};
}

std::string join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += word;
  return text;
}

int serve(const char* address) {
  tolk::Server server(tolk::Options{.quiet = true});
  server.on("middle", middle_of);
  server.on("mirror", [](const Point& point) { return Point{point.y, point.x, point.name}; });
  server.on("join", join);
  server.on("fail", [] { throw std::runtime_error("no paper"); });
  server.on("sleep", [](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); });
  server.on("ask back", [](tolk::Caller caller) { return caller.call<int>("twice", 21).value(); });
  server.on("die", [] { std::_Exit(0); });
  server.listen(address);
  std::cout << "listening" << std::endl;
  std::cin.get();
  return 0;
}

class Script {
 public:
  explicit Script(const char* address) : client_(tolk::Options{.quiet = true}) {
    client_.on("twice", [](int number) { return 2 * number; });
    client_.connect(address);
  }

  int play() {
    const std::vector<Point> points = {{0, 0}, {4, 2}};
    const Point middle = client_.call<Point>("middle", points).value();
    check("structs in a list", middle.x == 2 && middle.y == 1 && middle.name == "middle");
    const Point mirrored = client_.call<Point>("mirror", Point{1, 2}).value();
    check("a struct", mirrored.x == 2 && mirrored.y == 1 && !mirrored.name);
    const std::vector<std::string> words = {"a", "b"};
    check("a list", client_.call<std::string>("join", words).value() == "ab");
    check("the server calls back", client_.call<int>("ask back").value() == 42);
    check("a failure", client_.call("fail").error().detail() == "ValueError: no paper");
    check("wrong arguments",
          client_.call("join", 1).error().detail() == "argument 1: wanted [string], got int");
    check("no method", client_.call("nobody").error().code() == tolk::Errc::no_such_method);
    return good_ ? 0 : 1;
  }

 private:
  void check(const char* what, bool right) {
    std::cout << (right ? "right: " : "WRONG: ") << what << std::endl;
    good_ = good_ && right;
  }

  tolk::Client client_;
  bool good_ = true;
};

}  // namespace

int main(int count, char** words) {
  if (count != 3) return 2;
  try {
    return std::string(words[1]) == "serve" ? serve(words[2]) : Script(words[2]).play();
  } catch (const std::exception& error) {
    std::cout << error.what() << std::endl;
    return 1;
  }
}
