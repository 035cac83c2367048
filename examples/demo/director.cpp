#include "director.h"

#include <algorithm>
#include <utility>

namespace demo {
namespace {

constexpr int kLookMs = 50;
constexpr std::chrono::seconds kStepLimit{120};

// Below the ephemeral ports, and different for demos that run at the same time.
std::string first_address() { return std::to_string(10000 + own_process_id() % 20000); }

std::string title_of(const std::string& transport) {
  if (transport == "pipe") return "Local pipe";
  return transport == "tcp4" ? "TCP on IPv4" : "TCP on IPv6";
}

}  // namespace

void Director::play(const std::string& transport) {
  transcript_.title(title_of(transport));
  transcript_.part("A server, and a client that connects");
  Actor& server = enter("server", {"server", transport, first_address()});
  const std::string address = tell(server, "start");
  if (address.empty()) return curtain();
  Actor& ada = enter_client("ada", transport, address);
  tell(ada, "connect");

  transcript_.part("Synchronous, fast and posted calls; an unknown method; a timeout");
  tell(ada, "calls");

  transcript_.part("Three more clients, all at once");
  const std::vector<Actor*> others{&enter_client("bo", transport, address),
                                   &enter_client("cy", transport, address),
                                   &enter_client("di", transport, address)};
  tell_all(others, "connect");
  tell_all(others, "crowd");

  transcript_.part("The server calls each client by its id");
  tell(ada, "roll_call");

  transcript_.part("A large file, in pieces");
  tell(ada, "file");

  transcript_.part("A clean close");
  tell_all(others, "close");
  tell(ada, "close");
  tell(server, "stop");
  tell(ada, "connect_gone");
  curtain();
}

void Director::play_versions() {
  transcript_.title("A server of another version");
  Actor& old = enter("old", {"old_server"});
  const std::string port = tell(old, "start");
  Actor& ada = enter_client("ada", "tcp4", port);
  old.process->write_line("answer");
  ada.process->write_line("connect_refused");
  wait_until_done({&old, &ada}, "the version check");
  curtain();
}

int Director::verdict() {
  const auto taken = std::chrono::steady_clock::now() - begin_;
  transcript_.verdict(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
  return transcript_.all_right() ? 0 : 1;
}

Director::Actor& Director::enter(const std::string& name, std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), {"--in", directory_});
  auto actor = std::make_unique<Actor>();
  actor->name = name;
  actor->process = Process::start(arguments);
  actors_.push_back(std::move(actor));
  return *actors_.back();
}

Director::Actor& Director::enter_client(const std::string& name, const std::string& transport,
                                        const std::string& address) {
  return enter(name, {"client", name, transport, address, std::to_string(file_bytes_)});
}

std::string Director::tell(Actor& actor, const std::string& command) {
  tell_all({&actor}, command);
  return actor.done.value_or("");
}

void Director::tell_all(const std::vector<Actor*>& actors, const std::string& command) {
  for (Actor* actor : actors) actor->process->write_line(command);
  wait_until_done(actors, command);
}

void Director::wait_until_done(const std::vector<Actor*>& actors, const std::string& command) {
  for (Actor* actor : actors) actor->done.reset();
  const auto all_done = [&] {
    return std::all_of(actors.begin(), actors.end(),
                       [](const Actor* actor) { return actor->done || actor->process->silent(); });
  };
  const auto limit = std::chrono::steady_clock::now() + kStepLimit;
  while (!all_done() && std::chrono::steady_clock::now() < limit) {
    take_in(kLookMs);
    show_progress();
  }
  // Everything that led to the last report was written before it and has arrived.
  while (take_in(0)) {
  }
  end_progress();
  write_down();
  for (const Actor* actor : actors) {
    if (!actor->done) transcript_.problem(actor->name + " did not come to an end with: " + command);
  }
}

// True when more may follow.
bool Director::take_in(int limit_ms) {
  std::vector<Process*> processes;
  for (const auto& actor : actors_) {
    if (!actor->process->silent()) processes.push_back(actor->process.get());
  }
  if (!read_any(processes, limit_ms)) return false;
  bool took = false;
  for (const auto& actor : actors_) {
    while (auto line = actor->process->next_line()) {
      took = true;
      if (auto event = parse_event(*line)) {
        take_event(*actor, std::move(*event));
      } else {
        actor->library_lines.push_back(std::move(*line));
      }
    }
  }
  return took;
}

void Director::take_event(Actor& actor, Event event) {
  switch (event.kind) {
    case Event::Kind::step:
      events_.push_back(std::move(event));
      break;
    case Event::Kind::transfer:
      transfer_ = Transfer{&actor, actor.process->bytes_moved().value_or(0), event.bytes};
      break;
    case Event::Kind::done:
      actor.done = event.result;
      break;
  }
}

void Director::write_down() {
  std::stable_sort(events_.begin(), events_.end(),
                   [](const Event& a, const Event& b) { return a.when_ns < b.when_ns; });
  for (const Event& event : events_) transcript_.step(event);
  events_.clear();
}

void Director::show_progress() {
  if (!transfer_ || !transcript_.shows_progress()) return;
  const auto moved = transfer_->actor->process->bytes_moved();
  if (moved && *moved >= transfer_->begin) {
    transcript_.progress(*moved - transfer_->begin, transfer_->total);
  }
}

void Director::end_progress() {
  if (transfer_ && transcript_.shows_progress()) transcript_.progress_done();
  transfer_.reset();
}

void Director::curtain() {
  for (const auto& actor : actors_) actor->process->dismiss();
  for (const auto& actor : actors_) {
    const int status = actor->process->wait();
    if (status != 0) {
      transcript_.problem(actor->name + " ended with status " + std::to_string(status));
    }
  }
  while (take_in(kLookMs)) {
  }
  show_library_lines();
  actors_.clear();
}

void Director::show_library_lines() {
  transcript_.part("What the library printed in each process");
  std::vector<bool> shown(actors_.size());
  for (std::size_t i = 0; i < actors_.size(); ++i) {
    if (shown[i]) continue;
    std::string who = actors_[i]->name;
    for (std::size_t j = i + 1; j < actors_.size(); ++j) {
      if (actors_[i]->library_lines != actors_[j]->library_lines) continue;
      shown[j] = true;
      who += ", " + actors_[j]->name;
    }
    transcript_.library_lines(who, actors_[i]->library_lines);
  }
}

}  // namespace demo
