// How threads and workers wake the loop thread of one session, and how calls reach workers: a model for spin.
// docs/model.md names the function behind each step.
//
// What a thread does under a lock is one atomic step, because nobody else touches the state meanwhile. What it
// does without a lock, such as a call of libuv, is a step of its own.
//
// -DPOSTERS=2 and the like set the configuration. Each -DFAULT_... plants one fault.
#ifndef POSTERS
#define POSTERS 0  // host threads that post
#endif
#ifndef EACH
#define EACH 1  // tasks that each of them posts, at most
#endif
#ifndef OWN_TASKS
#define OWN_TASKS 0  // tasks that the loop thread posts, at most
#endif
#ifndef OTHER_IO
#define OTHER_IO 1  // events that end a wait, and may be the end of the stream, at most
#endif
#ifndef CALLS
#define CALLS 0  // calls that the peer sends, at most
#endif
#ifndef THREADS
#define THREADS 1  // of libuv's pool
#endif
#ifndef FAILURES
#define FAILURES 0  // of uv_queue_work, at most
#endif

#define TASKS (POSTERS * EACH + OWN_TASKS)
#define PREPARED TASKS  // the number of the session's prepared task
#define NONE 255

// The states of a task, and those of a call.
mtype = { unknown, enqueued, ran, refused, waits, runs, handled, ended, reported };

// The task queue, guarded by its lock.
chan tasks = [TASKS + 1] of { byte };
chan ends = [CALLS + 1] of { byte };  // of calls that a worker has run
bool queue_open = true;
bool prepared = true;  // and not enqueued yet
bool asleep = true;
byte wakers;  // threads that are about to touch the wake-up handle; not guarded

// The work queue, guarded by its lock.
chan waiting = [CALLS + 1] of { byte };
byte idle;  // runners that are going to look at `waiting`

// libuv.
bool async_sent;     // the wake-up is not consumed yet
bool handle_closed;  // the wake-up handle
byte pool_queue;     // runners that no thread of the pool has taken
byte runners_done;   // the callback of each is due
byte requests;       // that keep the loop alive
bool loop_closed;

// What is still to come, at most.
byte other_io, own_tasks, incoming, failures;

// For the assertions.
bool stopped;
mtype task_state[TASKS + 1] = unknown;
mtype call_state[CALLS + 1] = unknown;
byte stuck;  // handlers that return only after a rest
byte rests;  // moments in which nothing could happen

inline uv_async_send() {
  assert(!handle_closed && !loop_closed);
  async_sent = true
}

inline uv_queue_work() {
  atomic { assert(!loop_closed); requests++; pool_queue++ }
}

// --- The task queue ---

inline refuse(task) {
  atomic {
    assert(task_state[task] == unknown || task_state[task] == enqueued);
    task_state[task] = refused
  }
}

// Under the lock. `sends`: whether the loop sleeps, so that `wake` must send.
inline sleeper(sends) {
  if
  :: asleep ->
#ifndef FAULT_AWAKE_SAID_AFTER_SEND
    asleep = false;
#endif
#ifndef FAULT_WAKER_COUNTED_AFTER_UNLOCK
    wakers++;
#endif
    sends = true
  :: else
  fi
}

// Without the lock.
inline wake(sends) {
  if
  :: sends ->
#ifdef FAULT_WAKER_COUNTED_AFTER_UNLOCK
    wakers++;
#endif
#ifdef FAULT_WAKER_LEAVES_BEFORE_SEND
    wakers--;
    uv_async_send();
    sends = false
#else
#ifndef FAULT_NO_SEND
    uv_async_send();
#endif
#ifdef FAULT_AWAKE_SAID_AFTER_SEND
    asleep = false;
#endif
#ifdef FAULT_WAKER_NEVER_LEAVES
    sends = false
#else
    atomic { wakers--; sends = false }
#endif
#endif
  :: !sends
  fi
}

// Under the lock.
inline enqueue(task) {
  tasks!task;
  task_state[task] = enqueued;
  sleeper(sends)
}

inline post(task) {
  if
#ifdef FAULT_OPEN_READ_BEFORE_LOCK
  :: queue_open -> atomic { enqueue(task) }; wake(sends)
#else
  :: atomic { queue_open -> enqueue(task) }; wake(sends)
#endif
  :: !queue_open -> refuse(task)
  fi
}

inline post_prepared() {
  if
  :: atomic { queue_open && prepared -> prepared = false; enqueue(PREPARED) }; wake(sends)
  :: !queue_open || !prepared
  fi
}

inline post_end(call, wakes, open) {
  atomic {
    open = queue_open;
    if
#ifdef FAULT_END_OF_CLOSED_QUEUE_DROPPED
    :: !queue_open
    :: queue_open -> ends!call
#else
    :: ends!call
#endif
    fi;
    if
#if defined(FAULT_WAKE_OF_CLOSED_QUEUE)
    :: wakes -> sleeper(sends)
    :: !wakes
#elif defined(FAULT_END_DOES_NOT_WAKE)
    :: true
#else
    :: queue_open && wakes -> sleeper(sends)
    :: !queue_open || !wakes
#endif
    fi
  };
  wake(sends)
}

// On the loop thread, as all that follows.
inline fall_asleep(sleeps) {
#if defined(FAULT_SLEEP_WITHOUT_LOOK)
  atomic { asleep = true; sleeps = true }
#elif defined(FAULT_LOOK_AND_SLEEP_APART)
  sleeps = empty(tasks) && empty(ends);
  asleep = asleep || sleeps
#elif defined(FAULT_SLEEP_WITHOUT_LOOK_AT_ENDS)
  atomic { sleeps = empty(tasks); asleep = asleep || sleeps }
#elif defined(FAULT_SLEEP_UNSAID)
  sleeps = empty(tasks) && empty(ends)
#else
  atomic { sleeps = empty(tasks) && empty(ends); asleep = asleep || sleeps }
#endif
}

inline stay_awake() { asleep = false }

inline close_queue() {
#ifdef FAULT_CLOSE_WAITS_WHILE_OPEN
  wakers == 0;
#endif
  atomic {
    queue_open = false;
    do
    :: tasks?other -> left!other
    :: empty(tasks) -> break
    od;
    other = 0
  };
#if !defined(FAULT_CLOSE_DOES_NOT_WAIT) && !defined(FAULT_CLOSE_WAITS_WHILE_OPEN)
  wakers == 0;
#endif
  atomic {
    do
#ifndef FAULT_CLOSE_FORGETS_TAKEN_TASKS
    :: taken_tasks?other -> refuse(other)
    :: empty(taken_tasks) -> break
#else
    :: break
#endif
    od;
    do
#ifndef FAULT_CLOSE_FORGETS_TASKS
    :: left?other -> refuse(other)
    :: empty(left) -> break
#else
    :: break
#endif
    od;
    other = 0
  }
}

// Every ending: a task, the end of a call, the end of the stream.
inline end_session() {
#ifdef FAULT_HANDLE_CLOSED_BEFORE_QUEUE
  atomic { handle_closed = true; async_sent = false };
#endif
  close_queue();
  atomic { handle_closed = true; async_sent = false };
  stopped = true
}

inline drain() {
  atomic {
    do
    :: tasks?task -> taken_tasks!task
    :: ends?task -> taken_ends!task
    :: empty(tasks) && empty(ends) -> break
    od
  };
  do
  :: empty(taken_tasks) && empty(taken_ends) -> break
  :: nempty(taken_tasks) || nempty(taken_ends) ->
    if
    :: atomic {
        empty(taken_ends) && nempty(taken_tasks) -> taken_tasks?task;
        assert(task_state[task] == enqueued && !stopped);
        task_state[task] = ran
      }
    :: atomic {
        taken_ends?task ->
        assert(call_state[task] == handled && !loop_closed);
        call_state[task] = ended;
        task = NONE
      }
    fi;
    if
    :: !stopped -> end_session()
    :: task != PREPARED
    fi
  od;
  task = 0
}

// --- The work queue ---

#ifdef FAULT_RUNNER_COUNTED_TWICE
#define NEEDS_RUNNER (idle == 0)
#else
#define NEEDS_RUNNER (len(waiting) == idle)
#endif

// Under the lock.
inline wait_for_runner(call) {
  waiting!call;
  call_state[call] = waits;
  assert(len(waiting) <= idle)
}

// `runner`: whether there is one that nobody has counted. It is not kept when the call does not need it.
inline add(call, runner, added) {
  atomic {
    if
    :: NEEDS_RUNNER && !runner -> added = false
    :: NEEDS_RUNNER && runner -> idle++; added = true
#ifdef FAULT_UNNEEDED_RUNNER_STARTS
    :: !NEEDS_RUNNER -> added = true
#else
    :: !NEEDS_RUNNER -> runner = false; added = true
#endif
    fi;
    if
    :: added -> wait_for_runner(call)
    :: !added
    fi
  }
}

// When libuv takes no work. The call that was added last is the last one that waits, unless another runner has it.
inline take_back(call) {
  atomic {
    assert(idle > 0);
    if
    :: len(waiting) < idle -> idle--
#ifdef FAULT_TAKEN_CALL_REPORTED
      ; assert(call_state[call] != reported); call_state[call] = reported
#endif
    :: len(waiting) == idle ->
      idle--;
      do
      :: other < idle -> waiting?taken; waiting!taken; other++
      :: other == idle -> break
      od;
      waiting?taken;
      assert(taken == call && call_state[call] == waits);
      call_state[call] = reported;
      atomic { other = 0; taken = 0 }
    fi;
    assert(len(waiting) <= idle)
  }
}

inline start(call) {
  if
  :: uv_queue_work()
  :: atomic { failures > 0 -> failures-- }; take_back(call)
  fi
}

inline begin(call) {
#if defined(FAULT_ADDED_WITHOUT_DECIDING_AGAIN)
  runner = NEEDS_RUNNER;
  atomic { idle = idle + runner; wait_for_runner(call) };
#else
  add(call, runner, added);
  if
  :: !added -> runner = true;
#ifdef FAULT_STARTED_BEFORE_ADDED
    uv_queue_work();
#endif
    add(call, runner, added)
  :: added
  fi;
#endif
  if
#ifdef FAULT_STARTED_BEFORE_ADDED
  :: true
#else
  :: runner -> start(call)
  :: !runner
#endif
  fi;
  atomic { runner = false; added = false }
}

// On a thread of the pool, as all that follows.
inline take_first() {
  if
  :: waiting?call -> assert(call_state[call] == waits); call_state[call] = runs
  :: empty(waiting) -> call = NONE
  fi
}

inline leave() {
  assert(idle > 0);
  idle--
}

inline begin_run() {
#ifdef FAULT_LOOK_AND_COUNT_APART
  atomic { take_first() };
  atomic { leave(); assert(len(waiting) <= idle) }
#else
  atomic { leave(); take_first(); assert(len(waiting) <= idle) }
#endif
}

inline next() {
  atomic {
    take_first();
    if
    :: call == NONE -> idle++
    :: else
    fi
  };
  if
  :: call != NONE
#ifdef FAULT_IDLE_RUNNER_LEAVES
  :: call == NONE -> atomic { leave(); assert(len(waiting) <= idle) }
#else
  :: call == NONE -> begin_run()
#endif
  fi
}

inline work_here() {
  if
  :: true
  :: atomic { stuck++; until = rests + 1 };
    atomic { rests >= until -> stuck--; until = 0 }
  fi;
  atomic { assert(!loop_closed); call_state[call] = handled }
}

active [THREADS] proctype PoolThread() {
  byte call = NONE, until;
  bool stays, open, sends;

end_without_runner:
  do
  :: atomic { pool_queue > 0 -> pool_queue-- };
    begin_run();
    do
    :: call == NONE -> break
    :: call != NONE ->
      work_here();
      if
      :: stays = true
      :: stays = false
      fi;
      post_end(call, stays, open);
      call = NONE;
      if
#ifdef FAULT_RUNNER_STAYS_WHEN_CLOSED
      :: stays -> next()
      :: !stays
#else
      :: stays && open -> next()
      :: !stays || !open
#endif
      fi;
      atomic { stays = false; open = false }
    od;
    runners_done++
  od
}

// --- The loop thread ---

#define event_is_due                                                                      \
  (async_sent || runners_done > 0 || (!stopped && (other_io > 0 || own_tasks > 0 || incoming > 0)))

inline on_runner_done() {
  atomic { runners_done--; requests-- };
#ifndef FAULT_RUNNER_DONE_WITHOUT_DRAIN
  drain()
#endif
}

inline one_event() {
  if
  :: async_sent -> async_sent = false
  :: runners_done > 0 -> on_runner_done()
  :: atomic { !stopped && other_io > 0 -> other_io-- };
    if
    :: true
    :: true -> end_session()
    fi
  :: atomic { !stopped && own_tasks > 0 -> own_tasks--; task = POSTERS * EACH + own_tasks };
    post(task);
    task = 0
  :: atomic { !stopped && incoming > 0 -> incoming-- };
    begin(incoming)
  fi
}

// Nothing can happen before a handler returns or the peer goes.
inline rest() {
  atomic {
    assert(empty(tasks) && empty(ends));
    assert(empty(waiting) || stuck == THREADS);
    rests++
  }
}

active proctype Loop() {
  byte task, other, taken;
  bool sleeps, polled, sends, runner, added;
  chan taken_tasks = [TASKS + 1] of { byte };
  chan left = [TASKS + 1] of { byte };  // queued when the queue was closed
  chan taken_ends = [CALLS + 1] of { byte };

  atomic {
    select(other_io : 0 .. OTHER_IO);
    select(own_tasks : 0 .. OWN_TASKS);
    select(incoming : 0 .. CALLS);
    select(failures : 0 .. FAILURES)
  };
  stay_awake();
  drain();
  do
  :: stopped -> break
  :: !stopped ->
    if
    :: true -> progress_by_choice: skip
    :: true -> fall_asleep(sleeps)
    fi;
    do  // uv_run(UV_RUN_ONCE) if the loop sleeps, else uv_run(UV_RUN_NOWAIT)
    :: event_is_due -> one_event(); sleeps = false
    :: timeout -> rest(); end_session(); sleeps = false
    :: !sleeps -> polled = true; break
#ifdef FAULT_NO_POLL_WHILE_TASKS_COME
    :: !sleeps -> break
#endif
    od;
    assert(polled);
    polled = false;
    stay_awake();
#ifndef FAULT_WOKEN_LOOP_DOES_NOT_DRAIN
    drain()
#endif
  od;
#ifndef FAULT_NO_DRAIN_WHILE_HANDLES_CLOSE
  drain();
#endif
  do
  :: requests == 0 -> break
#ifdef FAULT_LOOP_CLOSED_BEFORE_RUNNERS_END
  :: requests > 0 -> break
#endif
  :: runners_done > 0 -> on_runner_done()
  :: timeout -> rest()
  od;
  atomic {
    loop_closed = true;
    assert(empty(tasks) && empty(ends) && empty(waiting) && idle == 0 && requests == 0);
    for (other : 0 .. TASKS) { assert(task_state[other] != enqueued) }
    for (other : 0 .. CALLS) {
      assert(call_state[other] == unknown || call_state[other] == ended || call_state[other] == reported)
    }
  }
}

// --- Host threads ---

active [POSTERS] proctype Poster() {
  byte task = (_pid - 1 - THREADS) * EACH;
  byte last = task + EACH;
  bool sends;

  do
  :: task < last -> post(task); task++
  :: true -> break
  od
}

active proctype Closer() {
  bool sends;

  if
  :: post_prepared(); post_prepared()
  :: true
  fi
}
