#include <iostream>
#include <tolk/tolk.hpp>

// As the first version of a program has it …
namespace first {
struct Note {
  std::string text;
};
TOLK_FIELDS(Note, text)
}  // namespace first

// … and the second. A field that earlier peers do not send is optional. A peer ignores fields that
// it does not know.
namespace second {
struct Note {
  std::string text;
  std::optional<std::string> author;
};
TOLK_FIELDS(Note, text, author)
}  // namespace second

int main(int argc, char** argv) {
  const tolk::Address where = argc > 1 ? argv[1] : "pipe:5000";
  tolk::Server server;
  server.on("sign", [](second::Note note) {
    note.author = note.author.value_or("somebody");
    return note;
  });
  server.listen(where);

  tolk::Client client = tolk::connect(where);
  std::cout << client.call<first::Note>("sign", first::Note{"hello"}).value().text << "\n";
  std::cout << *client.call<second::Note>("sign", first::Note{"hello"}).value().author << "\n";
}
