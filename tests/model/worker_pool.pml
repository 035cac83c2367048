// How threads of a worker pool of the C interface come to their tasks: a model for spin. docs/model.md names the
// function behind each step.
//
// What a thread does under the pool's lock is one atomic step. What it does without it, such as to wake another
// thread, is a step of its own. Time is free: a thread that polls or watches may stop at any moment, and whether what
// waits is soon done is a free choice.
//
// -DTASKS=3 and the like set the configuration. Each -DFAULT_... plants one fault.
#ifndef WORKERS
#define WORKERS 2
#endif
#ifndef THREADS
#define THREADS 3  // that exist at the same time, at most
#endif
#ifndef TASKS
#define TASKS 2  // that the loop thread adds, at most
#endif
#ifndef OTHER_TASKS
#define OTHER_TASKS 0  // that another thread adds, at most
#endif
#ifndef WAITS
#define WAITS 1  // handlers that wait in the library, at most
#endif
#ifndef LONG_RUNS
#define LONG_RUNS 1  // handlers that return only when nothing else can happen, at most
#endif
#ifndef EXPIRIES
#define EXPIRIES 0  // threads that have been idle for too long, at most
#endif
#ifndef FAILURES
#define FAILURES 0  // threads that cannot be started, at most
#endif
#define LATE 255

// The pool, guarded by its lock.
byte waiting, taken;
byte threads, starting, idle, woken, polling, blocked;
byte round, quick;
byte round_of[THREADS];  // each thread's own
bool retired, watched, watcher_called, watch_wanted;

// The system: threads that are to begin; those that sleep, and how many of these are to go on.
byte begins, sleepers, signals;
bool thread_lacks;

// What is still to come, at most.
byte waits = WAITS, long_runs = LONG_RUNS, expiries = EXPIRIES, failures = FAILURES;

// For the assertions.
byte added, ran, running;  // running: handlers that do not wait in the library
bool is_fresh[THREADS];    // began a handler after the last late one, and does not wait
bool released;
byte adders = 1 + (OTHER_TASKS > 0);

// --- Who is called ---

inline count_fresh() {
  fresh = 0;
  for (i : 0 .. THREADS - 1) { fresh = fresh + is_fresh[i] }
  i = 0
}

// WorkerPool::lacks_threads with can_wait.
inline look_whether_lacking() {
  coming = polling + woken + starting + watcher_called;
  if
  :: waiting <= coming -> lacking = false
  :: else -> lacking = true
  fi;
  if
#ifdef FAULT_LATE_THREADS_ARE_RELIED_ON
  :: lacking && running + coming > 0 ->
#else
  :: lacking && quick + coming > 0 ->
#endif
    watch_wanted = true;
#ifdef FAULT_RELIES_ON_UNWATCHED
    lacking = false;
#else
    lacking = !watched;
#endif
    count_fresh();
    assert(lacking || coming + fresh > 0);
    fresh = 0
  :: true
  fi;
  coming = 0
}

inline find_threads() {
  calls = 0;
  starts = 0;
  do
  :: true ->
    look_whether_lacking();
    if
    :: lacking && woken < idle -> woken++; calls++
    :: lacking && woken >= idle && watched && !watcher_called -> watcher_called = true
    :: lacking && woken >= idle && !(watched && !watcher_called) && threads < WORKERS + blocked ->
      threads++;
      starting++;
      starts++
    :: else -> break
    fi
  od;
  lacking = false
}

// Without the lock. The watching thread wakes by itself.
inline wake_found() {
  do
  :: atomic { calls > 0 -> calls--; signals = signals + (signals < sleepers) }
  :: calls == 0 && starts > 0 ->
    if
    :: atomic { starts--; begins++ }
    :: atomic {
        failures > 0 ->
        failures--;
        starts--;
#ifndef FAULT_FAILED_START_COUNTS
        threads--;
        starting--;
#endif
#ifndef FAULT_FAILED_START_IS_NOT_TOLD
        thread_lacks = true
#endif
      }
    fi
  :: calls == 0 && starts == 0 -> break
  od
}

#define LOCALS               \
  byte i, fresh, coming;     \
  byte calls, starts;        \
  bool lacking

// --- Threads of the pool ---

#define is_needed (threads <= WORKERS + blocked)

inline no_longer_quick() {
  atomic {
    if
    :: round_of[me] == round -> assert(quick > 0); quick--
    :: else
    fi;
    round_of[me] = LATE;
    is_fresh[me] = false
  }
}

inline wait_in_library() {
  atomic {
    running--;
#ifdef FAULT_WAITING_THREAD_IS_RELIED_ON
    is_fresh[me] = false;
#else
    no_longer_quick();
#endif
    blocked++;
#ifndef FAULT_WAITING_THREAD_CALLS_NOBODY
    find_threads()
#endif
  };
  wake_found();
  if
  :: true
  :: true -> released
  fi;
  atomic { blocked--; running++ }
}

inline run_handler() {
  if
  :: true
  :: atomic { waits > 0 && !released -> waits-- }; wait_in_library()
  fi;
  if
  :: true
  :: atomic { long_runs > 0 && !released -> long_runs-- };
    released
  fi
}

// One wait of WorkerPool::sleep. `got`: there is something to take.
inline watch_or_sleep() {
  atomic {
    watches = !watched && (watch_wanted || waiting > 0);
    if
    :: watches -> watched = true; watch_wanted = false; taken_before = taken
    :: else -> idle++; asleep = woken == 0; sleepers = sleepers + asleep
    fi
  };
  if
  :: watches -> watch_ends()
  :: !watches ->
    do
    :: !asleep -> break
    :: atomic {
        asleep && signals > 0 ->
        signals--;
        asleep = woken == 0 && !retired;
        sleepers = sleepers - !asleep
      }
    :: atomic {
        asleep && expiries > 0 && signals < sleepers ->
        expiries--;
        expired = true;
        asleep = false;
        sleepers--
      }
    od;
    atomic {
      woken = woken - (woken > 0);
      idle--;
      assert(woken <= idle);
      got = waiting > 0
    }
  fi
}

// WorkerPool::watch, from the end of its wait on.
inline watch_ends() {
  atomic {
#ifdef FAULT_WATCHER_ONLY_HEARS_CALLS
    got = waiting > 0 && watcher_called;
#else
    got = waiting > 0 && (watcher_called || taken == taken_before);
#endif
    if
    :: got && !watcher_called ->
      round++;
      quick = 0;
      for (i : 0 .. THREADS - 1) { is_fresh[i] = false }
      i = 0
    :: else
    fi;
    watched = false;
    watcher_called = false;
    watches = false;
    taken_before = 0
  }
}

// WorkerPool::next. `mine`: a task.
inline next_task() {
  atomic {
    no_longer_quick();
    polls = is_needed && waiting == 0 && polling == 0 && !retired;
    if
    :: polls -> polling++
    :: polls -> polls = false
    :: else
    fi
  };
  if
  :: polls -> atomic { polling--; polls = false }
  :: !polls
  fi;
  if
  :: atomic { is_needed && waiting == 0 -> got = false; expired = false };
    do
    :: !got && !expired && !retired -> watch_or_sleep()
    :: got || expired || retired -> break
    od
  :: else
  fi;
  atomic {
    mine = waiting > 0 && is_needed;
    got = false;
    expired = false;
    if
    :: mine ->
      waiting--;
      taken++;
      quick++;
      round_of[me] = round;
      is_fresh[me] = true;
      running++;
      if
#ifndef FAULT_OTHER_TASKS_ARE_LEFT
      :: waiting > 0 && !watched -> find_threads()
#endif
      :: else
      fi
    :: else ->
      threads--;
#ifndef FAULT_UNNEEDED_THREAD_LEAVES_TASKS
      if
      :: waiting > 0 -> find_threads()
      :: else
      fi
#endif
    fi
  };
  wake_found()
}

active [THREADS] proctype PoolThread() {
  LOCALS;
  byte me = _pid;
  byte taken_before;
  bool watches, asleep, polls, got, expired, mine;

  round_of[me] = LATE;
end_not_begun:
  do
  :: atomic { begins > 0 -> begins-- };
    atomic { starting--; mine = true };
    do
    :: mine ->
      next_task();
      if
      :: mine -> run_handler(); atomic { running--; ran++ }
      :: !mine
      fi
    :: !mine -> break
    od
  od
}

// --- Threads that add tasks ---

inline call_threads() {
  atomic { find_threads() };
  wake_found()
}

// Callbacks::add_quietly: threads are called for several tasks together.
active proctype Loop() {
  LOCALS;
  bool must_call;

  do
  :: added < TASKS ->
    atomic { added++; waiting++; look_whether_lacking(); must_call = must_call || lacking; lacking = false }
  :: must_call -> must_call = false; call_threads()
  :: added == TASKS && !must_call -> break
  od;
  atomic { adders-- };
end_loop:
  do
  :: thread_lacks -> thread_lacks = false; call_threads()
  od
}

#if OTHER_TASKS
active proctype Other() {
  LOCALS;
  byte mine;
  bool must_call;

  do
  :: mine < OTHER_TASKS ->
    mine++;
    atomic { waiting++; look_whether_lacking(); must_call = lacking; lacking = false };
    if
    :: must_call -> call_threads()
    :: !must_call
    fi
  :: mine == OTHER_TASKS -> break
  od;
  adders--
}
#endif

// Comes when nothing else can happen.
active proctype Checker() {
  byte i, fresh;

  atomic {
    timeout ->
    assert(adders == 0 && !watched && polling == 0 && starting == 0 && woken == 0);
    // A task waits only if handlers that do not wait in the library occupy all workers.
    assert(waiting == 0 || running >= WORKERS);
    assert(threads >= idle + running + blocked);
    released = true
  };
  atomic {
    timeout ->
    assert(waiting == 0 && ran == TASKS + OTHER_TASKS && running == 0 && blocked == 0);
    assert(threads == idle && quick == 0);
    retired = true;
#ifndef FAULT_RETIRING_WAKES_NOBODY
    signals = sleepers
#endif
  };
  atomic { timeout -> assert(threads == 0 && idle == 0 && sleepers == 0) }
}
