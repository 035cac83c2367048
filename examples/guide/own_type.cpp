#include <cstdio>
#include <iostream>
#include <tolk/tolk.hpp>

// A type that may be of another library.
struct Colour {
  unsigned char red = 0, green = 0, blue = 0;
};

template <>
struct tolk::Converter<Colour> {
  using Wire = std::string;  // any type that travels
  static Wire to_wire(const Colour& c) {
    char text[8];
    std::snprintf(text, sizeof text, "#%02x%02x%02x", c.red, c.green, c.blue);
    return text;
  }
  static Colour from_wire(const Wire& text) {
    unsigned rgb = 0;
    if (std::sscanf(text.c_str(), "#%6x", &rgb) != 1) throw std::runtime_error("not a colour");
    return {static_cast<unsigned char>(rgb >> 16), static_cast<unsigned char>(rgb >> 8),
            static_cast<unsigned char>(rgb)};
  }
};

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  tolk::Server server;
  server.on("grey", [](Colour c) {
    const auto mean = static_cast<unsigned char>((c.red + c.green + c.blue) / 3);
    return Colour{mean, mean, mean};
  });
  server.listen(where);

  tolk::Client client = tolk::connect(where);
  const Colour grey = client.call<Colour>("grey", Colour{255, 0, 0}).value();
  std::cout << int(grey.red) << "\n";
  std::cout << client.call<Colour>("grey", "red").error().detail() << "\n";
}
