// How frames of several threads get to one stream: a model for spin. docs/model.md names the function behind each
// step.
//
// What a thread does under the queue's lock is one atomic step. A call of the system, and one of libuv, is a step of
// its own. The stream carries units, two for each frame, so that the system can take a part of one. A frame is known
// by its place in the order in which frames were added.
//
// -DADDERS=2 and the like set the configuration. Each -DFAULT_... plants one fault.
#ifndef ADDERS
#define ADDERS 2  // threads that add frames
#endif
#ifndef EACH
#define EACH 1  // frames that each of them adds
#endif
#ifndef BOUND
#define BOUND 255  // frames that may wait: who adds waits for room
#endif
#ifndef EMPTIERS
#define EMPTIERS 0  // threads that wait until all is written
#endif
#ifndef CLOSES
#define CLOSES 0  // the queue may be closed at any time
#endif
#ifndef SENDS
#define SENDS 2  // of one thread in a row, at most
#endif

#define FRAME 2  // units
#define whole(units) (units - units % FRAME)

// The queue, guarded by its lock. The units from `left` to `added` wait.
bool connected, closed, sending, writing, is_full;
bool flush_is_due = true;
byte added, left, unwritten;
byte waiters;  // threads that wait for a change

// The stream and the loop thread.
byte wire;  // units that the system has taken
bool descriptor_closed;
byte flushes;  // tasks

inline notify() { waiters = 0 }

// --- Any thread ---

#ifdef FAULT_SENDS_WHILE_WRITING
#define may_send (connected && !is_full)
#else
#define may_send (connected && !writing && !is_full)
#endif
#ifdef FAULT_TWO_THREADS_SEND
#define is_left_to_another false
#else
#define is_left_to_another sending
#endif

// A batch has one frame or all; the system takes any part of it.
inline send_waiting() {
  do
  :: atomic { !closed && sends < SENDS && left < added && !is_full ->
      sends++;
      begin = left;
      end = added;
      if
      :: end > whole(left) + FRAME -> end = whole(left) + FRAME
      :: true
      fi
    };
    atomic {
      assert(!descriptor_closed && wire == begin);
      select(wire : begin .. end);
      taken = wire
    };
    atomic {
      if
      :: !closed ->
        is_full = taken < end;
        unwritten = unwritten - (taken - begin);
#ifdef FAULT_PART_IS_FORGOTTEN
        left = whole(taken)
#else
        left = taken
#endif
      :: else
      fi;
      begin = 0;
      end = 0;
      taken = 0
    }
  :: atomic { closed || sends == SENDS || left == added || is_full ->
      sends = 0;
      sending = false;
#ifndef FAULT_SENDER_WAKES_NOBODY
      notify();
#endif
      finish_add();
      break
    }
  od
}

// In the same step as the end of the sending.
inline finish_add() {
  if
#ifdef FAULT_SENDER_LEAVES_THE_REST
  :: sends_itself
#endif
  :: !closed && left < added && !writing -> posts = !flush_is_due; flush_is_due = true
  :: else
  fi;
  sends_itself = false
}

active [ADDERS] proctype Adder() {
  byte each, sends, begin, end, taken;
  bool sends_itself, posts, waits;

  do
  :: each < EACH ->
    do
    :: atomic { !closed && (unwritten == 0 || unwritten <= (BOUND - 1) * FRAME) ->
        added = added + FRAME;
        unwritten = unwritten + FRAME;
        if
        :: is_left_to_another
        :: !is_left_to_another && may_send -> sends_itself = true; sending = true
        :: !is_left_to_another -> finish_add()  // or the frame is to be sent soon
        fi;
        break
      }
    :: closed -> break
    :: atomic { else -> waiters = waiters | (1 << _pid); waits = true };
      atomic { !(waiters & (1 << _pid)) -> waits = false }
    od;
    if
    :: sends_itself -> send_waiting()
    :: !sends_itself
    fi;
    if
    :: posts -> atomic { flushes++; posts = false }
    :: !posts
    fi;
    each++
  :: each == EACH -> break
  od
}

// OutgoingQueue::wait_until_empty. Its limit may pass at any time; then only a thread that sends is waited for.
active [EMPTIERS] proctype Emptier() {
  bool late;

  do
  :: atomic { closed || unwritten == 0 || late && !sending -> break }
  :: atomic { else -> waiters = waiters | (1 << _pid) };
    if
    :: atomic { !(waiters & (1 << _pid)) }
    :: atomic { !late -> late = true; waiters = waiters & ~(1 << _pid) }
    fi
  od
}

// --- The loop thread ---

inline flush() {
  atomic {
#ifdef FAULT_FLUSH_IS_DUE_WHILE_ANOTHER_SENDS
    flush_is_due = flush_is_due && sending;
#else
    flush_is_due = false;
#endif
    if
#ifdef FAULT_FLUSH_WHILE_ANOTHER_SENDS
    :: !closed && !writing && left < added ->
#else
    :: !closed && !sending && !writing && left < added ->
#endif
      writing = true;
      begin = left;
      end = added;
      if
      :: end > whole(left) + FRAME -> end = whole(left) + FRAME
      :: true
      fi;
      left = end
    :: else
    fi
  }
}

inline on_written() {
  atomic {
    assert(wire == begin);
    wire = end;
    writing = false;
    is_full = false;
    unwritten = unwritten - (end - begin);
#ifndef FAULT_WRITTEN_WAKES_NOBODY
    notify();
#endif
    begin = 0;
    end = 0
  };
#ifndef FAULT_WRITTEN_WRITES_NO_MORE
  flush()
#endif
}

inline close_queue() {
  closed = true;
#ifndef FAULT_CLOSE_DOES_NOT_WAIT
  !sending;
#endif
  atomic {
    connected = false;
    left = added;
    unwritten = 0;
#ifndef FAULT_CLOSE_WAKES_NOBODY
    notify()
#endif
  };
  descriptor_closed = true
}

active proctype Loop() {
  byte begin, end;  // of the write under way
  bool may_close;

  atomic {
    connected = true;
    if
    :: CLOSES -> may_close = true
    :: true
    fi
  };
  flush();
end_idle:
  do
  :: atomic { flushes > 0 -> flushes-- }; flush()
  :: writing && !closed -> on_written()
  :: may_close && !closed -> close_queue()
  od
}

// Comes when nothing else can happen.
active proctype Checker() {
  atomic {
    timeout ->
    assert(!sending && waiters == 0 && left == added && unwritten == 0);
    assert(closed || wire == added && added == ADDERS * EACH * FRAME)
  }
}
