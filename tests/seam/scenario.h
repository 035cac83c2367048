// What failures are injected into: a server starts, a client connects, calls go both ways, a large
// call in three pieces, then all is closed and destroyed.
//
// Thread: one that is Exempt. Failure: trouble, in words; "" when everything was as documented:
// each operation came back, with its result or with null or false, nothing is left behind, and
// another client and server of the process work as before.
#pragma once

#include <memory>
#include <string>

#include "tests/e2e/support/transports.h"

namespace tolk::test {

class Scenario {
 public:
  // The other client and server: before everything else, or none before the failures are over.
  enum class Bystander { first, none };

  explicit Scenario(Transport transport, Bystander bystander = Bystander::first);
  ~Scenario();
  Scenario(const Scenario&) = delete;
  Scenario& operator=(const Scenario&) = delete;

  // Under whatever Faults there are.
  std::string play();
  // Under them too, for the threads that are still on their way out.
  std::string loops_left() const;
  // Without any: whether the process is as it was.
  std::string aftermath();
  // Operations that came back only because the test ended their waits. A large call whose result
  // was lost waits, as documented, until a server is lost.
  int ended_waits() const;

 private:
  struct Parts;

  const std::unique_ptr<Parts> parts_;
};

}  // namespace tolk::test
