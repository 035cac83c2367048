// A server in a separate process, and what that process holds, also compared with an earlier look.
//
// Thread: the row's. Owner: the object. Failure: the row's.
#pragma once

#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/stress/frame/process.h"
#include "tests/stress/frame/run.h"

namespace tolk::stress {

struct Held {
  long resident_kib = 0;
  int descriptors = 0;
  int threads = 0;
  int clients = 0;
};

class Served {
 public:
  Served(Run& run, test::Transport transport, const std::vector<std::string>& options = {})
      : run_(run), address_(test::fresh_address(transport)) {
    std::vector<std::string> words{"echo-server", text_of(address_)};
    words.insert(words.end(), options.begin(), options.end());
    process_ = std::make_unique<Process>(words);
    run_.expect(process_->read_line() == "ready", "the server did not start");
  }

  const test::Address& address() const { return address_; }
  Process& process() { return *process_; }

  Held held() {
    Held now;
    const std::optional<std::string> line = process_->ask("stats");
    if (run_.expect(line.has_value(), "the server's process is gone")) {
      std::istringstream(*line) >> now.resident_kib >> now.descriptors >> now.threads >>
          now.clients;
    }
    return now;
  }
  // Until it has as many descriptors as then, and holds no more memory than allowed.
  Held expect_back_to(const Held& before, long allowed_kib) {
    Held now = held();
    const auto is_back = [&] {
      now = held();
      return now.descriptors <= before.descriptors &&
             (!run_.holds_memory() || now.resident_kib <= before.resident_kib + allowed_kib);
    };
    eventually(is_back, Milliseconds(5000));
    run_.expect(now.descriptors <= before.descriptors, now.descriptors,
                " descriptors are open, not ", before.descriptors);
    if (run_.holds_memory()) {
      run_.expect(now.resident_kib <= before.resident_kib + allowed_kib, "the server holds ",
                  now.resident_kib - before.resident_kib, " KiB more than before; ", allowed_kib,
                  " are allowed");
    }
    return now;
  }

 private:
  Run& run_;
  const test::Address address_;
  std::unique_ptr<Process> process_;
};

}  // namespace tolk::stress
