// sd-bus, in two forms: directly from process to process, and with "daemon" as the first argument
// through a dbus-daemon of its own, as programs on a desktop do it. A connection cannot be used by
// two threads, so each caller has one.
#include <sys/prctl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include "bench/calls/contestant.h"
#include "bench/peers/must.h"

namespace bench {
namespace {

constexpr char kName[] = "bench.Echo";
constexpr char kObject[] = "/echo";
constexpr std::uint64_t kNoLimit = ~std::uint64_t{0};
constexpr unsigned kPostsBetweenFlushes = 64;

constexpr char kDaemonSettings[] =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN" "busconfig.dtd">
<busconfig><type>session</type><listen>unix:path=SOCKET</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy>
<limit name="max_incoming_bytes">1000000000</limit><limit name="max_outgoing_bytes">1000000000</limit>
<limit name="max_message_size">1000000000</limit><limit name="max_completed_connections">100000</limit>
<limit name="max_incomplete_connections">100000</limit>
<limit name="max_connections_per_user">100000</limit>
<limit name="max_replies_per_connection">100000</limit></busconfig>
)";

bool read_bytes(sd_bus_message* message, std::string_view& bytes) {
  const void* data = nullptr;
  std::size_t size = 0;
  if (sd_bus_message_read_array(message, 'y', &data, &size) < 0) return false;
  bytes = {static_cast<const char*>(data), size};
  return true;
}

int on_call(sd_bus_message* call, void*, sd_bus_error*) {
  std::string_view bytes;
  sd_bus_message* answer = nullptr;
  if (!read_bytes(call, bytes) || sd_bus_message_new_method_return(call, &answer) < 0) {
    return -EINVAL;
  }
  sd_bus_message_append_array(answer, 'y', bytes.data(), bytes.size());
  const int sent = sd_bus_send(nullptr, answer, nullptr);
  sd_bus_message_unref(answer);
  return sent < 0 ? sent : 1;
}

int on_bulk(sd_bus_message* call, void*, sd_bus_error*) {
  std::string_view bytes;
  if (!read_bytes(call, bytes)) return -EINVAL;
  return sd_bus_reply_method_return(call, "t", static_cast<std::uint64_t>(bytes.size()));
}

int on_post(sd_bus_message*, void* shared, sd_bus_error*) {
  ++static_cast<Shared*>(shared)->handled;
  return 1;
}

const sd_bus_vtable kMethods[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Call", "ay", "ay", on_call, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Bulk", "ay", "t", on_bulk, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Post", "ay", "", on_post,
                  SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_VTABLE_END};

sd_bus* open_bus(const Place& place, bool has_daemon) {
  sd_bus* bus = nullptr;
  must(sd_bus_new(&bus) >= 0, "no bus");
  sd_bus_set_address(bus, ("unix:path=" + place.path).c_str());
  sd_bus_set_bus_client(bus, has_daemon ? 1 : 0);
  must(sd_bus_start(bus) >= 0, "no connection");
  return bus;
}

void process(sd_bus* bus) {
  for (int result = 0; result >= 0;) {
    result = sd_bus_process(bus, nullptr);
    if (result == 0) result = sd_bus_wait(bus, kNoLimit);
  }
  sd_bus_unref(bus);
}

class BusClient final : public Client {
 public:
  BusClient(const Place& place, std::size_t callers, bool has_daemon) : has_daemon_(has_daemon) {
    while (callers_.size() < callers) callers_.push_back(open_bus(place, has_daemon));
  }
  ~BusClient() override {
    for (sd_bus* const bus : callers_) sd_bus_flush_close_unref(bus);
  }

  bool echo(std::size_t caller, const std::string& payload) override {
    sd_bus_message* const answer = call(callers_[caller], "Call", payload);
    std::string_view bytes;
    const bool is_right = answer != nullptr && read_bytes(answer, bytes) && bytes == payload;
    sd_bus_message_unref(answer);
    return is_right;
  }

  bool bulk(std::string_view bytes) override {
    sd_bus_message* const answer = call(callers_[0], "Bulk", bytes);
    std::uint64_t count = 0;
    const bool is_right =
        answer != nullptr && sd_bus_message_read(answer, "t", &count) >= 0 && count == bytes.size();
    sd_bus_message_unref(answer);
    return is_right;
  }

  bool post(const std::string& payload) override {
    sd_bus_message* const message = make("Post", callers_[0], payload);
    sd_bus_message_set_expect_reply(message, 0);
    const bool is_sent = sd_bus_send(callers_[0], message, nullptr) >= 0;
    sd_bus_message_unref(message);
    if (++posts_ % kPostsBetweenFlushes == 0) sd_bus_flush(callers_[0]);
    return is_sent;
  }

  bool flush_posts() override { return sd_bus_flush(callers_[0]) >= 0; }

 private:
  sd_bus_message* make(const char* method, sd_bus* bus, std::string_view bytes) const {
    sd_bus_message* message = nullptr;
    must(sd_bus_message_new_method_call(bus, &message, has_daemon_ ? kName : nullptr, kObject,
                                        kName, method) >= 0 &&
             sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()) >= 0,
         "no message");
    return message;
  }

  sd_bus_message* call(sd_bus* bus, const char* method, std::string_view bytes) const {
    sd_bus_message* const message = make(method, bus, bytes);
    sd_bus_message* answer = nullptr;
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int result = sd_bus_call(bus, message, 0, &error, &answer);
    sd_bus_message_unref(message);
    must(result >= 0, error.message == nullptr ? "no answer" : error.message);
    return answer;
  }

  const bool has_daemon_;
  std::vector<sd_bus*> callers_;
  unsigned posts_ = 0;
};

class SdBus final : public Contestant {
 public:
  explicit SdBus(bool has_daemon) : has_daemon_(has_daemon) {}

  std::vector<pid_t> start_daemon(const Place& place) override {
    if (!has_daemon_) return {};
    const std::string file = place.path + ".conf";
    std::string settings = kDaemonSettings;
    settings.replace(settings.find("SOCKET"), 6, place.path);
    std::ofstream(file) << settings;
    const pid_t daemon = fork();
    if (daemon == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      execlp("dbus-daemon", "dbus-daemon", ("--config-file=" + file).c_str(), "--nofork",
             "--nopidfile", nullptr);
      _exit(127);
    }
    for (int i = 0; i < 5000 && access(place.path.c_str(), F_OK) != 0; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return {daemon};
  }

  void serve(const Place& place, Shared& shared) override {
    must(place.transport == Transport::pipe, "sd-bus has no TCP of its own");
    if (has_daemon_) {
      serve_by_daemon(place, shared);
    } else {
      serve_directly(place, shared);
    }
  }

  std::unique_ptr<Client> connect(const Place& place, std::size_t callers) override {
    return std::make_unique<BusClient>(place, callers, has_daemon_);
  }

 private:
  static void add_methods(sd_bus* bus, Shared& shared) {
    must(sd_bus_add_object_vtable(bus, nullptr, kObject, kName, kMethods, &shared) >= 0,
         "no methods");
  }

  static void serve_by_daemon(const Place& place, Shared& shared) {
    sd_bus* const bus = open_bus(place, true);
    add_methods(bus, shared);
    must(sd_bus_request_name(bus, kName, 0) >= 0, "no name");
    shared.listening = true;
    process(bus);
  }

  // A thread for each connection.
  static void serve_directly(const Place& place, Shared& shared) {
    const Socket listener = listen_at(place);
    shared.listening = true;
    for (;;) {
      std::thread([&shared, descriptor = accept_one(listener).release()] {
        sd_bus* bus = nullptr;
        sd_id128_t id{};
        sd_id128_randomize(&id);
        sd_bus_new(&bus);
        sd_bus_set_fd(bus, descriptor, descriptor);
        sd_bus_set_server(bus, 1, id);
        sd_bus_set_anonymous(bus, 1);
        must(sd_bus_start(bus) >= 0, "no connection");
        add_methods(bus, shared);
        process(bus);
      }).detach();
    }
  }

  const bool has_daemon_;
};

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  const bool has_daemon = argc > 1 && std::string_view(argv[1]) == "daemon";
  bench::SdBus contestant(has_daemon);
  return bench::run_contestant(argc - has_daemon, argv + has_daemon, contestant);
}
