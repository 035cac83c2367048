#include <iostream>
#include <tolk/tolk.hpp>

struct Point {
  double x = 0, y = 0;
};
template <>
inline constexpr auto tolk::describe<Point> = tolk::fields("x", &Point::x, "y", &Point::y);

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";

  tolk::Server server(tolk::Options{.quiet = true});
  server.on("middle", [](const std::vector<Point>& points) {
    Point sum;
    for (const Point& point : points) sum = {sum.x + point.x, sum.y + point.y};
    const double count = static_cast<double>(points.size());
    return Point{sum.x / count, sum.y / count};
  });
  server.listen(where);

  tolk::Client client = tolk::connect(where, {.quiet = true});
  const std::vector<Point> points = {{0, 0}, {4, 2}};
  const Point middle = client.call<Point>("middle", points).value();
  std::cout << middle.x << " " << middle.y << "\n";
}
