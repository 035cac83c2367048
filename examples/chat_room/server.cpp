// A chat room: the server passes each client's lines to all other clients.
//
//   chat_room_server PORT        until Enter
//
// Clients join with a name and say lines. The server calls each client by its id.
#include <tolk/tolk.h>

#include <iostream>
#include <map>
#include <mutex>
#include <string>

// The members. Handlers run on several threads at once, so there is a lock. It is never held during
// an outgoing call: the call waits for the server's loop thread, which may be in the "left" hook
// and wait for this lock.
class Room {
 public:
  explicit Room(IServer& server) : server_(server) {}

  void enter(int id, const std::string& name) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      names_[id] = name;
    }
    tell_others(id, name + " is here");
  }

  void leave(int id) {
    const std::string name = name_of(id);
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      names_.erase(id);
    }
    if (!name.empty()) tell_others(id, name + " has left");
  }

  void say(int id, const std::string& text) {
    const std::string name = name_of(id);
    if (!name.empty()) tell_others(id, name + ": " + text);
  }

 private:
  std::string name_of(int id) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto at = names_.find(id);
    return at == names_.end() ? "" : at->second;
  }

  std::map<int, std::string> members() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return names_;
  }

  // Posted, so that a slow member delays nobody. A member that has just left gets nothing.
  void tell_others(int id, const std::string& line) {
    TolkParams words;
    words.AddString(line.c_str());
    for (const auto& [member, name] : members()) {
      if (member != id) server_.PostMsg(member, "hear", &words, 0);
    }
  }

  IServer& server_;
  std::mutex mutex_;
  std::map<int, std::string> names_;  // by client id
};

// The first value of a call, if it is a string. Never trust what a peer sends.
std::string text_in(TolkParams* in) {
  const TolkValue* value = in->GetValue(0);
  return value && value->IsString() ? value->GetString() : "";
}

struct Join : IServerMethod {
  explicit Join(Room& its_room) : room(its_room) {}
  void callback(int id, TolkParams* in, TolkParams* out) override {
    room.enter(id, text_in(in));
    out->AddBool(true);
  }
  Room& room;
};

struct Say : IServerMethod {
  explicit Say(Room& its_room) : room(its_room) {}
  void callback(int id, TolkParams* in, TolkParams*) override { room.say(id, text_in(in)); }
  Room& room;
};

// An event has neither arguments nor a result.
struct Left : IServerMethod {
  explicit Left(Room& its_room) : room(its_room) {}
  void callback(int id, TolkParams*, TolkParams*) override { room.leave(id); }
  Room& room;
};

int main(int argc, char** argv) {
  IServer* server = CreateServer();
  static Room room(*server);
  static Join join(room);
  static Say say(room);
  static Left left(room);
  server->SetCustomReleaseEvent();  // the program keeps its handlers
  server->method("join", &join);
  server->method("say", &say);
  server->method("s_c_closed", &left);
  if (!server->InitTolkServer(argc > 1 ? argv[1] : "4001")) return 1;
  std::cout << "press Enter to stop" << std::endl;
  std::cin.get();
  DestroyServer(server);
}
