#include <filesystem>
#include <fstream>
#include <iostream>
#include <tolk/tolk.hpp>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  const fs::path folder = fs::temp_directory_path() / ("tolk" + where.text().substr(5));
  fs::create_directories(folder);
  std::ofstream(folder / "photo.raw") << std::string(3'000'000, 'x');

  tolk::Server server;
  // Where the data go is decided before they come. The handler runs when they are there.
  server.on_data(
      "upload",
      [&](tolk::Incoming data, const std::string& name) {
        if (data.total > 1'000'000'000) throw std::runtime_error("too large");
        return tolk::to_file(folder / name);
      },
      [](const std::string& name) { return "stored " + name; });
  server.on("download", [&](const std::string& name) { return tolk::from_file(folder / name); });
  server.listen(where);

  tolk::Client client = tolk::connect(where);
  std::cout << client
                   .send<std::string>("upload", tolk::from_file(folder / "photo.raw"), nullptr,
                                      "copy.raw")
                   .value()
            << "\n";
  std::uint64_t done = 0;
  client
      .fetch(
          "download", tolk::to_file(folder / "back.raw"),
          [&](tolk::Progress now) { done = now.done(); }, "copy.raw")
      .value();
  std::cout << done << " of " << fs::file_size(folder / "back.raw") << " bytes\n";
  fs::remove_all(folder);
}
