// Failures on purpose: of system calls and libuv calls that the library makes, and of its and
// libuv's allocations.
//
// While a Faults lives, the k-th chance fails, once or from then on, on whichever thread it comes.
// Threads are subject to failures unless they say otherwise: those of the library never do, the
// test's own do.
// Thread: any. One Faults at a time.
#pragma once

namespace tolk::test {

enum class Chance { call, memory };
enum class Mode { once, from_then_on };

class Faults {
 public:
  Faults(Chance chance, Mode mode, int k);
  ~Faults();
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;

  // Chances so far, and whether the k-th was among them.
  static int met();
  static bool injected();
  // Whether calls fail, not memory.
  static bool of_calls();
  // From the k-th on all fail; and whether that has begun.
  static bool will_go_on();
  static bool go_on() { return will_go_on() && injected(); }
};

// While alive, the next call of libuv with this name fails, once, on whichever thread it comes.
// Instead of a Faults, and one at a time.
class NextFails {
 public:
  explicit NextFails(const char* call);  // a literal
  ~NextFails();
  NextFails(const NextFails&) = delete;
  NextFails& operator=(const NextFails&) = delete;
};

// While alive, nothing fails on the calling thread.
class Exempt {
 public:
  Exempt();
  ~Exempt();
  Exempt(const Exempt&) = delete;
  Exempt& operator=(const Exempt&) = delete;
};

// While alive, the calling thread's exemption is lifted.
class Subject {
 public:
  Subject();
  ~Subject();
  Subject(const Subject&) = delete;
  Subject& operator=(const Subject&) = delete;

 private:
  const int before_;
};

// For what is no chance of a Faults: whether the NextFails is for it, and has not come yet.
bool is_next(const char* call);

// For the replaced calls: whether this one shall fail. `call` is its name; memory has none.
bool fails_now(Chance chance, const char* call = "");

// Once, before libuv is used: its memory comes from here too.
void take_over_memory_of_libuv();

}  // namespace tolk::test
