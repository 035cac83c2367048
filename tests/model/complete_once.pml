// How calls of the C interface end, and how its tasks, requests and objects do: a model for spin.
// docs/model.md names the function behind each step.
//
// What a thread does under a lock is one atomic step, because nobody else touches the state meanwhile. Code of
// the host runs without a lock. A condition variable is a flag that a waiting thread sets and a notification resets.
//
// -DCALLS=2 and the like set the configuration. Each -DFAULT_... plants one fault.
#ifndef CALLS
#define CALLS 0  // threads that make one call each
#endif
#ifndef DONE
#define DONE 2  // those calls have a `done`: 0 never, 1 always, 2 either
#endif
#ifndef LIMITS
#define LIMITS 0  // calls may have a limit
#endif
#ifndef REFUSALS
#define REFUSALS 0  // calls may be refused: no memory, too large, no such client, queue full
#endif
#ifndef CANCELS
#define CANCELS 0  // threads that cancel the first call
#endif
#ifndef WAITERS
#define WAITERS 0  // further threads that wait for the first call
#endif
#ifndef INLINE
#define INLINE 0  // `done` may be inline
#endif
#ifndef REQUESTS
#define REQUESTS 0  // calls that the peer sends, at most
#endif
#ifndef ORDERED
#define ORDERED 0  // their method is ordered
#endif
#ifndef REMOVALS
#define REMOVALS 0  // threads that remove their method
#endif
#ifndef POSTS
#define POSTS 0  // threads that post once, where one frame may be queued
#endif
#ifndef CLOSES
#define CLOSES 0  // threads that close without limit
#endif
#ifndef LOSSES
#define LOSSES 0  // the connection may be lost
#endif
#ifndef EXECUTORS
#define EXECUTORS 1  // threads that run tasks: workers, or the host's
#endif
#ifndef FREES_IN_CALLBACKS
#define FREES_IN_CALLBACKS 0  // a callback may free the object
#endif
#ifndef FREES_ON_EXECUTOR
#define FREES_ON_EXECUTOR 0  // the thread that frees the object runs its tasks as well, before and after
#endif

#define TASKS (CALLS + REQUESTS)  // those of calls come first
#define NONE 255
#define LOOP 0  // the process

mtype = { nowhere, in_table, finished, taken };        // a call's record
mtype = { unborn, queued, claimed };                   // a task
mtype = { opened, draining };                          // the object
mtype = { answered, timed_out, cancelled, refused, gone, closed };

// The core. Its host's handle is a member, so it lives as long.
byte core_refs = 2;  // the host and the loop thread
byte contexts_freed;
bool handle_deleted;
mtype phase = opened;

// The call table, guarded by its lock, and the records.
bool table_open = true;
mtype record[CALLS + 2] = nowhere;
bool awaited[CALLS + 2];
byte refs[TASKS + 1];  // of a record with its task, or of a request with its task
bool has_done[CALLS + 2], is_inline[CALLS + 2], armed[CALLS + 2], answers[CALLS + 2];
bool outcome_there[CALLS + 2];
bool semaphore[CALLS + 2];
byte ends[CALLS + 2];  // outcomes that the host got

// Callbacks, guarded by their lock.
mtype task_state[TASKS + 1] = unborn;
bool listed[TASKS + 1];
byte unfinished;
bool callbacks_ended;  // handlers do not begin
bool ending;           // a free that waits takes each task
bool ender_waits;
chan executor = [TASKS + 1] of { byte };

// The peer: its outgoing queue, open requests and ordered queue, each guarded by a lock.
bool out_open = true;
byte unwritten;  // posts and answers
bool poster_waits, closer_waits;
bool sent[CALLS + 2];
bool is_open[REQUESTS + 1];
chan ordered = [REQUESTS + 1] of { byte };
bool ordered_busy;
byte parts[REQUESTS + 1];  // of an ordered request: the handler's return, the answer
byte handlers;             // requests whose handler has not returned
chan deferred = [REQUESTS + 1] of { byte };

// The method.
byte method_refs = 1;
bool method_there = true;

// The loop thread.
bool stop_asked, lost, ended;

// For the assertions.
#ifdef FAULT_ORDERED_STARTS_AT_RETURN
#define REQUEST_PARTS 1
#else
#define REQUEST_PARTS 2
#endif
bool free_called, free_inside, free_returned, free_over;
bool drained;
byte begun, answered_requests;
bool started[CALLS + 2], replied[CALLS + 2];
bool request_ended[REQUESTS + 1];
byte running, handlers_running;

#define LOCALS               \
  byte c, u, current, next = NONE; \
  bool mine, dropped, hands_over

// --- References ---

inline use_core() { assert(core_refs > 0) }

inline drop_method() {
  assert(method_refs > 0);
  method_refs--;
  assert(method_refs > 0 || handlers_running == 0)
}

inline drop_core() {
  atomic {
    assert(core_refs > 0);
    core_refs--;
    if
    :: core_refs == 0 ->
      assert(running == 0 && contexts_freed == 0);
      contexts_freed++;
      if
      :: method_there -> method_there = false; drop_method()
      :: else
      fi
    :: else
    fi
  }
}

inline drop(object) {
  atomic {
    assert(refs[object] > 0);
    refs[object]--;
    if
#ifndef FAULT_REQUEST_HOLDS_NO_METHOD
    :: object >= CALLS && refs[object] == 0 -> drop_method()
#endif
    :: else
    fi
  }
}

// --- Callbacks ---

inline count_down() {
  assert(unfinished > 0);
  unfinished--;
  if
  :: unfinished == 0 -> ender_waits = false
  :: else
  fi
}

// `dropped`: the task is a handler that must not begin.
inline dispatch(task) {
  atomic {
    use_core();
    assert(refs[task] > 0 && task_state[task] == unborn);
    if
#ifndef FAULT_HANDLER_BEGINS_AFTER_END
    :: task >= CALLS && callbacks_ended -> dropped = true
#endif
    :: else ->
      task_state[task] = queued;
      listed[task] = true;
      refs[task]++;
#ifndef FAULT_TASK_HOLDS_NO_CORE
      core_refs++;
#endif
      if
#if defined(FAULT_DONE_COUNTED_AT_DISPATCH)
      :: true -> unfinished++
#elif !defined(FAULT_HANDLER_COUNTED_WHEN_CLAIMED)
      :: task >= CALLS -> unfinished++
#endif
      :: else
      fi;
      ender_waits = false;
      hands_over = !ending;
      if
      :: hands_over ->
#ifndef FAULT_EXECUTOR_HOLDS_NO_REFERENCE
        refs[task]++;
#endif
#ifndef FAULT_EXECUTE_NOT_COUNTED
        unfinished++
#endif
      :: else
      fi
    fi
  };
  if
  :: hands_over ->
    atomic { use_core(); assert(!free_returned); executor!task };
    atomic {
      hands_over = false;
#ifndef FAULT_EXECUTE_NOT_COUNTED
      count_down()
#endif
    }
  :: !hands_over
  fi
}

inline finish(task) {
#ifdef FAULT_CORE_DROPPED_BEFORE_FINISH
  drop_core();
#endif
  atomic {
    use_core();
    if
    :: listed[task] -> listed[task] = false; refs[task]--
    :: else
    fi;
    count_down()
  };
#if !defined(FAULT_TASK_HOLDS_NO_CORE) && !defined(FAULT_CORE_DROPPED_BEFORE_FINISH)
  drop_core()
#endif
}

inline claim(task) {
#ifdef FAULT_CLAIM_LOOKS_FIRST
  mine = task_state[task] == queued;
  atomic { assert(refs[task] > 0); task_state[task] = (mine -> claimed : task_state[task]) }
#else
  atomic {
    assert(refs[task] > 0);
    mine = task_state[task] == queued;
    task_state[task] = (mine -> claimed : task_state[task])
  }
#endif
}

inline count_claimed(task) {
#ifdef FAULT_HANDLER_COUNTED_WHEN_CLAIMED
  unfinished = unfinished + (task >= CALLS)
#else
  skip
#endif
}

inline callback_begins() {
  use_core();
  assert(!free_returned && !handle_deleted && contexts_freed == 0);
  running++
}

inline callback_ends() {
  assert(contexts_freed == 0 && !handle_deleted);
  running--
}

inline run_done(call) {
  atomic { callback_begins(); ends[call]++; assert(ends[call] == 1) };
  atomic { callback_ends() }
}

// Where the host frees the object.
inline end_callbacks(inside) {
  atomic { callbacks_ended = true; ending = !inside };
  do
  :: atomic {
      u = 0;
      do
      :: u < TASKS && !listed[u] -> u++
      :: else -> break
      od;
      if
      :: u < TASKS -> listed[u] = false
      :: else
      fi
    };
    if
    :: u < TASKS ->
      claim(u);
      if
      :: mine ->
        count_claimed(u);
        if
        :: u < CALLS -> run_done(u)
        :: else -> handler_over(u); end_with(u)
        fi;
        finish(u)
      :: !mine
      fi;
      drop(u)
    :: u == TASKS ->
#ifdef FAULT_END_TAKES_LIST_ONCE
      (inside || unfinished == 0);
      break
#else
      atomic {
        mine = false;
        u = 0;
        do
        :: u < TASKS && !listed[u] -> u++
        :: else -> break
        od;
        ender_waits = !inside && u == TASKS && unfinished > 0;
        mine = u == TASKS && !ender_waits;
        ending = ending && !mine
      };
      if
      :: mine -> break
      :: !mine -> !ender_waits
      fi
#endif
    fi
  od;
  atomic { u = 0; mine = false }
}

inline free_object(inside) {
  close_table();
  atomic { stop_asked = true; phase = draining; closer_waits = false };
  if
#ifdef FAULT_FREE_IN_CALLBACK_WAITS_FOR_LOOP
  :: inside && _pid != LOOP -> ended
  :: inside && _pid == LOOP
#else
  :: inside
#endif
  :: !inside -> ended
  fi;
#ifdef FAULT_FREE_IN_CALLBACK_WAITS_FOR_CALLBACKS
  end_callbacks(false);
#else
  end_callbacks(inside);
#endif
  atomic {
    free_returned = !inside;
    free_over = true;
#ifdef FAULT_HANDLE_DELETED_BY_FREE
    handle_deleted = true;
#endif
#ifdef FAULT_CONTEXT_FREED_BY_FREE
    contexts_freed++;
#endif
  };
  drop_core()
}

// What code of the host may do in any callback.
inline host_code(inside) {
  if
#if FREES_IN_CALLBACKS
  :: atomic { !free_called -> free_called = true; free_inside = inside }; free_object(inside)
#endif
  :: true
  fi
}

inline run_task(task) {
  claim(task);
  if
  :: mine ->
    count_claimed(task);
    atomic { mine = false; callback_begins() };
    if
    :: task < CALLS ->
      atomic { ends[task]++; assert(ends[task] == 1) };
      host_code(true);
      atomic { callback_ends() }
    :: else -> run_handler(task)
    fi;
    finish(task)
  :: !mine
  fi;
#ifndef FAULT_EXECUTOR_HOLDS_NO_REFERENCE
  drop(task)
#endif
}

// --- The call table ---

// `mine`: the record was in the table, and whoever called this delivers the outcome.
inline complete(call, status) {
#ifdef FAULT_COMPLETE_LOOKS_FIRST
  mine = record[call] == in_table;
#endif
  atomic {
    use_core();
#ifndef FAULT_COMPLETE_LOOKS_FIRST
    mine = record[call] == in_table;
#endif
    if
    :: mine ->
      assert(status != gone || lost);
      record[call] = (has_done[call] -> taken : finished);
      if
#ifndef FAULT_COMPLETER_HOLDS_NO_RECORD
      :: !has_done[call] -> refs[call]++
#endif
      :: else
      fi
    :: else
    fi
  }
}

inline deliver(call) {
  atomic { mine = false; assert(refs[call] > 0) };
  if
  :: has_done[call] -> dispatch(call); drop(call)
  :: !has_done[call] ->
    outcome_there[call] = true;
    atomic { assert(!semaphore[call]); semaphore[call] = true };
    assert(refs[call] > 0);
#ifndef FAULT_COMPLETER_HOLDS_NO_RECORD
    drop(call)
#endif
  fi
}

inline complete_and_deliver(call, status) {
  complete(call, status);
  if
  :: mine -> deliver(call)
  :: !mine
  fi
}

inline close_table() {
#ifdef FAULT_STREAM_CLOSED_BEFORE_TABLE
  stop_asked = true;
  ended || !out_open;
#endif
#ifndef FAULT_CLOSED_TABLE_TAKES_RECORDS
  table_open = false;
#endif
  do
  :: c < CALLS -> complete_and_deliver(c, closed); c++
  :: c == CALLS -> c = 0; break
  od
}

// --- Requests ---

// One of the two parts of an ordered request is over.
inline part_over(request) {
#ifdef FAULT_PARTS_LOOKED_AT_FIRST
  mine = parts[request - CALLS] == 1;
#endif
  atomic {
    use_core();
    parts[request - CALLS]--;
#ifndef FAULT_PARTS_LOOKED_AT_FIRST
    mine = parts[request - CALLS] == 0;
#endif
    if
    :: ORDERED && mine ->
      if
      :: ordered?next
      :: empty(ordered) -> ordered_busy = false
      fi
    :: else
    fi;
    mine = false
  }
}

inline handler_over(request) {
  atomic {
    use_core();
    handlers--;
#ifndef FAULT_HANDLER_WAKES_NO_CLOSER
    closer_waits = false
#endif
  };
  part_over(request)
}

inline send_answer() {
  atomic {
    use_core();
    unwritten = (out_open -> unwritten + 1 : 0)
  }
}

inline end_request(request) {
  atomic {
    use_core();
    assert(refs[request] > 0 && !request_ended[request - CALLS]);
    request_ended[request - CALLS] = true;
    answered_requests++
  };
  is_open[request - CALLS] = false;
#ifndef FAULT_ORDERED_STARTS_AT_RETURN
  part_over(request);
#endif
  send_answer();
  drop(request)
}

inline let_core_go() {
#ifdef FAULT_REQUEST_HOLDS_NO_CORE
  skip
#else
  drop_core()
#endif
}

// Dispatches `next` and, while requests are dropped, those behind it. Whoever calls this holds the core.
inline begin_requests() {
  do
  :: next == NONE -> break
  :: next != NONE ->
    atomic {
      current = next;
      next = NONE;
      assert(!ORDERED || (begun == answered_requests && handlers_running == 0));
      begun++
    };
    dispatch(current);
    if
    :: dropped -> dropped = false; handler_over(current); end_request(current); let_core_go()
    :: !dropped
    fi;
    current = 0
  od
}

// By the host, or when the handler is dropped.
inline end_with(request) {
  end_request(request);
  begin_requests();
  let_core_go()
}

inline run_handler(request) {
  atomic { handlers_running++; assert(!drained) };
  host_code(true);
  if
  :: end_with(request)
  :: deferred!request
  fi;
  atomic { callback_ends(); handlers_running-- };
  handler_over(request);
  begin_requests()
}

// --- The loop thread ---

inline deliver_on_loop(call) {
  if
  :: has_done[call] && is_inline[call] ->
    atomic {
      mine = false;
      task_state[call] = claimed;
#ifndef FAULT_TASK_HOLDS_NO_CORE
      core_refs++;
#endif
#ifdef FAULT_DONE_COUNTED_AT_DISPATCH
      unfinished++;
#endif
      callback_begins();
      ends[call]++;
      assert(ends[call] == 1)
    };
    if
    :: atomic { free_called && free_inside } -> free_over  // it may wait for another callback, which frees
    :: true
    fi;
    host_code(true);
    atomic { callback_ends() };
    finish(call);
    drop(call)
  :: else -> deliver(call)
  fi
}

inline complete_on_loop(call, status) {
  complete(call, status);
  if
  :: mine -> deliver_on_loop(call)
  :: !mine
  fi
}

inline complete_all_of_peer() {
  do
  :: c < CALLS -> complete_on_loop(c, gone); c++
  :: c == CALLS -> c = 0; break
  od
}

inline close_out() {
  atomic {
    out_open = false;
    unwritten = 0;
#ifndef FAULT_CLOSED_QUEUE_WAKES_NO_POSTER
    poster_waits = false;
#endif
    closer_waits = false
  }
}

// `request` names the one to mark, with the lock of the open requests.
inline mark_open_requests() {
  do
  :: c < REQUESTS ->
#ifdef FAULT_MARKED_WITHOUT_LOCK
    if
    :: is_open[c] -> assert(refs[CALLS + c] > 0)
    :: !is_open[c]
    fi;
#else
    atomic { assert(!is_open[c] || refs[CALLS + c] > 0) };
#endif
    c++
  :: c == REQUESTS -> c = 0; break
  od
}

inline receive(request) {
#ifdef FAULT_PHASE_READ_BEFORE_COUNT
  mine = phase == opened;
  handlers++;
#else
  handlers++;
  mine = phase == opened;
#endif
  atomic {
    if
    :: mine && method_there ->
#ifndef FAULT_REQUEST_HOLDS_NO_METHOD
      method_refs++;
#endif
#ifndef FAULT_REQUEST_HOLDS_NO_CORE
      core_refs++;
#endif
      refs[request] = 1;
      is_open[request - CALLS] = true;
      parts[request - CALLS] = REQUEST_PARTS
    :: else -> mine = false; handlers--; closer_waits = false
    fi
  };
  if
  :: mine ->
    atomic {
      mine = false;
      if
      :: ORDERED && ordered_busy -> ordered!request
      :: else -> ordered_busy = true; next = request
      fi
    };
    begin_requests()
  :: !mine -> send_answer()
  fi
}

active proctype Loop() {
  LOCALS;
  byte call, incoming;
  bool may_lose;
  mtype how;

  atomic {
    assert(_pid == LOOP);
    select(incoming : 0 .. REQUESTS);
    if
    :: LOSSES -> may_lose = true
    :: true
    fi
  };
  do
  :: atomic {
      if
      :: !lost && sent[0] && answers[0] -> answers[0] = false; replied[0] = true; call = 0; how = answered
      :: armed[0] -> armed[0] = false; call = 0; how = timed_out
      :: !lost && sent[1] && answers[1] -> answers[1] = false; replied[1] = true; call = 1; how = answered
      :: armed[1] -> armed[1] = false; call = 1; how = timed_out
      fi
    };
    complete_on_loop(call, how);
    atomic { call = 0; how = 0 }
#if REQUESTS
  :: atomic { !lost && incoming > 0 -> incoming--; call = CALLS + incoming };
    receive(call);
    call = 0
#endif
  :: atomic {
      out_open && unwritten > 0 ->
      unwritten--;
#ifndef FAULT_WRITTEN_WAKES_NO_POSTER
      poster_waits = false;
#endif
#ifndef FAULT_WRITTEN_WAKES_NO_CLOSER
      closer_waits = false
#endif
    }
  :: atomic { may_lose && !lost -> lost = true };
#ifdef FAULT_CALLS_COMPLETED_BEFORE_QUEUE_CLOSES
    complete_all_of_peer();
    close_out();
#else
    close_out();
    complete_all_of_peer();
#endif
    mark_open_requests()
  :: stop_asked -> break
  od;
  close_out();
  mark_open_requests();
  ended = true;
  drop_core()
}

// --- Threads of the host ---

// A thread that is not in a callback may use the object until it is freed.
#define enter atomic { !free_called -> use_core(); core_refs++ }

inline wait_for(call) {
  if
  :: atomic { semaphore[call] -> semaphore[call] = false }
#if LIMITS
  :: true ->
    complete(call, timed_out);
    if
    :: mine -> atomic { outcome_there[call] = true; mine = false; drop(call) }
#ifdef FAULT_UNDELIVERED_OUTCOME_READ
    :: !mine
#else
    :: !mine -> atomic { semaphore[call] -> semaphore[call] = false }
#endif
    fi
#endif
  fi;
  assert(outcome_there[call] && refs[call] > 0);
  atomic { record[call] = taken; drop(call); ends[call]++; assert(ends[call] == 1) }
}

// `mine`: nobody else waits for the call.
inline begin_wait(call) {
#ifdef FAULT_TWO_WAITERS
  mine = record[call] == in_table || record[call] == finished;
#else
  mine = (record[call] == in_table || record[call] == finished) && !awaited[call];
#endif
  awaited[call] = awaited[call] || mine;
  refs[call] = refs[call] + mine
}

inline wait_in_thread(call) {
  if
  :: mine -> mine = false; wait_for(call); drop(call)
  :: !mine
  fi
}

inline without_memory(call) {
  if
  :: has_done[call] ->
    atomic { callback_begins(); ends[call]++; assert(ends[call] == 1) };
#ifdef FAULT_DONE_IN_START_IS_NOT_INSIDE
    host_code(false);
#else
    host_code(true);
#endif
    atomic { callback_ends() };
    atomic { count_down() }
  :: !has_done[call] -> atomic { ends[call]++; assert(ends[call] == 1) }
  fi
}

inline add(call) {
#ifdef FAULT_CLOSED_READ_BEFORE_LOCK
  mine = table_open;
#endif
  atomic {
    use_core();
#ifndef FAULT_CLOSED_READ_BEFORE_LOCK
    mine = table_open;
#endif
    if
    :: mine -> record[call] = in_table; refs[call]++
    :: !mine
    fi
  }
}

inline send(call) {
  if
  :: atomic { out_open -> sent[call] = true }
#ifdef FAULT_CLOSED_QUEUE_NOT_REPORTED
  :: !out_open
#else
  :: !out_open -> complete_and_deliver(call, gone)
#endif
#if REFUSALS
#ifdef FAULT_REFUSED_WITHOUT_COMPLETE
  :: has_done[call] -> atomic { refs[call]++; task_state[call] = unborn }; deliver(call)
#else
  :: true -> complete_and_deliver(call, refused)
#endif
#endif
  fi
}

active [CALLS] proctype Caller() {
  LOCALS;
  byte me = _pid - 1;

  if
  :: atomic {
      enter;
      started[me] = true;
      refs[me] = 1;
      select(c : 0 .. 1);
      has_done[me] = (DONE == 2 -> c : DONE);
      select(c : 0 .. 1);
      answers[me] = c;
      select(c : 0 .. INLINE);
      is_inline[me] = c && has_done[me];
      c = 0;
#ifndef FAULT_DONE_COUNTED_AT_DISPATCH
      unfinished = unfinished + has_done[me]
#endif
    };
    if
#if REFUSALS
    :: without_memory(me)
#endif
    :: true ->
#ifdef FAULT_SENT_BEFORE_ADDED
      if
      :: out_open -> sent[me] = true
      :: !out_open
      fi;
#endif
      if
      :: phase == opened -> add(me)
      :: phase != opened -> mine = false
      fi;
      if
      :: mine ->
        mine = false;
#ifndef FAULT_SENT_BEFORE_ADDED
        send(me);
#endif
        if
        :: LIMITS && has_done[me] -> armed[me] = true
        :: true
        fi;
        if
        :: !has_done[me] -> atomic { begin_wait(me) }; wait_in_thread(me)
        :: has_done[me]
        fi
      :: !mine && has_done[me] ->
#ifndef FAULT_REFUSED_RECORD_FORGOTTEN
        dispatch(me)
#endif
      :: !mine && !has_done[me] -> atomic { ends[me]++; assert(ends[me] == 1) }
      fi
    fi;
    drop(me);
    drop_core()
  :: free_called
  fi
}

active [CANCELS] proctype Canceller() {
  LOCALS;

  if
  :: enter; complete_and_deliver(0, cancelled); drop_core()
  :: free_called
  fi
}

active [WAITERS] proctype Waiter() {
  bool mine;

  if
  :: enter;
    atomic { begin_wait(0) };
    wait_in_thread(0);
    drop_core()
  :: free_called
  fi
}

active [POSTS] proctype Poster() {
  if
  :: enter;
    do
    :: atomic {
        use_core();
        if
        :: !out_open -> break
        :: out_open && unwritten == 0 -> unwritten = 1; break
        :: else -> poster_waits = true
        fi
      };
      !poster_waits
    od;
    drop_core()
  :: free_called
  fi
}

active [CLOSES] proctype Closer() {
  LOCALS;

  if
  :: enter;
    phase = draining;
    do
    :: atomic {
        use_core();
        if
        :: handlers == 0 && unwritten == 0 -> drained = true; break
        :: stop_asked -> break
        :: else -> closer_waits = true
        fi
      };
      !closer_waits
    od;
    close_table();
    stop_asked = true;
    drop_core()
  :: free_called
  fi
}

active [REMOVALS] proctype Remover() {
  atomic {
    if
    :: method_there -> method_there = false; drop_method()
    :: else
    fi
  }
}

#if REQUESTS
active proctype Answerer() {
  LOCALS;
  byte request;

end_without_request:
  do
  :: deferred?request -> assert(!handle_deleted); end_with(request); request = 0
  od
}
#endif

active [EXECUTORS] proctype Executor() {
  LOCALS;
  byte task;

end_without_task:
  do
  :: executor?task -> run_task(task); task = 0
  od
}

// Nothing can happen before the object is freed.
inline rest() {
  assert(empty(executor) && handlers == 0 && unwritten == 0 && !poster_waits && !closer_waits);
  for (c : 0 .. CALLS) {
    assert(record[c] != in_table || (!lost && !stop_asked && sent[c] && !answers[c] && !armed[c]));
    // A reply that came is not lost.
    assert(record[c] != in_table || !replied[c])
  }
  c = 0
}

active proctype Freer() {
  LOCALS;
  byte task;
  bool rests;

  if
  :: true
  :: rests = true
  fi;
  do
#if FREES_ON_EXECUTOR
  :: executor?task -> run_task(task); task = 0
#endif
  :: atomic { !rests && !free_called -> free_called = true }; free_object(false); break
  :: atomic { timeout && rests && !free_called -> rest(); rests = false }
  :: free_called -> break
  od;
end_without_task:
  do
#if FREES_ON_EXECUTOR
  :: executor?task -> run_task(task); task = 0
#endif
  :: false
  od
}

active proctype Checker() {
  byte i;

end_before_rest:
  atomic {
    timeout && free_over ->
    assert(core_refs == 0 && contexts_freed == 1 && method_refs == 0);
    assert(unfinished == 0 && running == 0 && handlers == 0);
    for (i : 0 .. CALLS) { assert(!started[i] || ends[i] == 1) }
    for (i : 0 .. TASKS) { assert(refs[i] == 0) }
  }
}
