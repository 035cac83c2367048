// A desk that colleagues join, for the story of the demo: a server that is called and calls back.
#include <algorithm>
#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
#include <tolk/tolk.hpp>

namespace {

using Name = tolk::named<"name", std::string>;
using Question = tolk::named<"question", std::string>;

class Desk {
 public:
  Desk() {
    server_.on(
        "ask", [this](const Question& question) { return answers_to(question); },
        "asks each colleague");
    server_.on(
        "half", [](int number) { return half_of(number); }, "of an even number");
    server_.on(
        "join", [this](const tolk::Caller& who, const Name& name) { join(who.id(), name); },
        "makes the caller a colleague");
    server_.on_data(
        "keep", [](tolk::Incoming) { return tolk::to_function([](auto) {}); },
        [](const Name& name) { return name.value + " is kept"; }, "saves the data sent with it");
    server_.on_closed([this](tolk::ClientId id) {
      const std::lock_guard<std::mutex> lock(mutex_);
      names_.erase(id);
    });
  }
  void serve(const std::string& address) {
    server_.listen(address);
    server_.wait();
  }

 private:
  static tolk::Result<int> half_of(int number) {
    if (number % 2 == 0) return number / 2;
    return tolk::failure(std::to_string(number) + " is odd, it has no half");
  }
  void join(tolk::ClientId id, const std::string& name) {
    const std::lock_guard<std::mutex> lock(mutex_);
    names_[id] = name;
    std::cout << name << " has joined" << std::endl;
  }
  std::vector<std::string> answers_to(const std::string& question) {
    std::map<tolk::ClientId, std::string> names;
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      names = names_;
    }
    std::vector<std::string> answers;
    answers.reserve(names.size());
    for (const auto& [id, name] : names) {
      answers.push_back(name + ": " + server_.call<std::string>(id, "answer", question).value());
    }
    std::sort(answers.begin(), answers.end());
    return answers;
  }

  std::mutex mutex_;
  std::map<tolk::ClientId, std::string> names_;
  tolk::Server server_;  // its end waits for handlers, which use the others
};

void join(const std::string& address, const std::string& name) {
  std::mutex mutex;
  std::condition_variable ended;
  bool is_over = false;
  tolk::Client client;
  client.on("answer", [&](const std::string& question) {
    return question.size() % 2 == name.size() % 2 ? "no, thanks" : "yes";
  });
  client.on_closed([&] {
    const std::lock_guard<std::mutex> lock(mutex);
    is_over = true;
    ended.notify_all();
  });
  client.connect(address);
  client.call("join", tolk::arg("name", name)).value();
  std::unique_lock<std::mutex> lock(mutex);
  ended.wait(lock, [&] { return is_over; });
}

}  // namespace

int main(int argc, char** argv) try {
  const std::vector<std::string> words(argv + 1, argv + argc);
  if (words.size() == 2 && words[0] == "serve") {
    Desk().serve(words[1]);
  } else if (words.size() == 3 && words[0] == "join") {
    join(words[1], words[2]);
  } else {
    std::cerr << "usage: desk serve ADDRESS | desk join ADDRESS NAME" << std::endl;
    return 2;
  }
} catch (const tolk::Error& error) {
  std::cerr << "desk: " << error.what() << ": " << error.hint() << std::endl;
  return 1;
}
