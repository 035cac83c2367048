/// @file
/// The C interface: clients, servers, and the blocks of values that they exchange.
///
/// Rules that hold for all of it:
/// - **Nothing** is printed or thrown, and no object affects another one.
/// - **Threads.** Every function is safe on any thread, and no lock is held while code of the host
///   runs. A block is for one thread at a time while somebody changes it. From its free on, only
///   the callbacks and requests of an object may use it. Its operations then fail with
///   TOLK_CLOSED, also those that are under way on other threads.
/// - **Owner.** What a function gives through a `**` parameter, or returns without `const`, is the
///   caller's, who frees it with the `_free` of its type; null is allowed there. What is `const`
///   is borrowed, and so are the client and the server of a request. A function that takes
///   something over says so.
/// - **Failure.** A function that can fail returns a status. If its last parameter is one for an
///   error object, that receives one, or null after a success; it may be null. What the function
///   gives by other `**` parameters is null after a failure.
/// - **Texts** end with a zero byte and are UTF-8 by convention; nobody checks that.
/// - **Structs** have their own size as the first member; one of 0 is TOLK_MISUSE, and nothing of
///   it is read. Zero in another member means the default:
///   `tolk_call call = {.size = sizeof call};`
/// - **Limits** are in milliseconds and hold within 10 ms. 0 is the usual one; for a post, a close
///   and a wait it means not to wait. Below 0 there is none.
/// - **Callbacks** run where their object says (see tolk_client_options::execute), inline ones on
///   the object's loop thread while that runs. They must not throw.
/// - **Contexts.** A `free_context`, which may be null, is called once, whatever happened: after
///   the last callback that gets the context has returned, or when the function that took it
///   fails. That may be on any thread, and after the free of the object has returned.
/// - **Waiting.** A function that waits says so. In an inline callback, or the log, of the same
///   object it does not wait for what the loop thread would do: it fails with TOLK_MISUSE.
/// - **Fork.** In a child, clients, servers, requests and tasks of the parent are closed: calls
///   with them fail with TOLK_CLOSED, a `done` runs at once, and to free, answer or run them does
///   nothing. Their contexts are not released there.
#ifndef TOLK_C_H
#define TOLK_C_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <tolk/export.h>

// NOLINTBEGIN(modernize-use-using): C has typedef alone.

#ifdef __cplusplus
extern "C" {
#endif

/// A server's clients all together.
#define TOLK_ALL UINT64_MAX
/// No limit.
#define TOLK_FOREVER (-1)
/// Instead of a size: the text ends at its zero byte.
#define TOLK_TO_ZERO SIZE_MAX
/// The index of a value that is not there.
#define TOLK_NOWHERE SIZE_MAX

typedef struct tolk_error tolk_error;      ///< why something failed
typedef struct tolk_block tolk_block;      ///< values: the arguments or the result of a call
typedef struct tolk_source tolk_source;    ///< where the bytes of a transfer come from
typedef struct tolk_sink tolk_sink;        ///< where they go
typedef struct tolk_methods tolk_methods;  ///< methods that peers may call
typedef struct tolk_request tolk_request;  ///< one call of a peer, to be answered once
typedef struct tolk_task tolk_task;        ///< work for the host's executor
typedef struct tolk_client tolk_client;    ///< a connection to a server
typedef struct tolk_server tolk_server;    ///< listens, and has the connections of its clients

/// Returns the version of the library: "1.1.0".
TOLK_API const char* tolk_version(void);

/// Releases a context.
typedef void (*tolk_release)(void* context);

// ---- Failures ----------------------------------------------------------------------------------

/// What became of an operation. The numbers stay; later versions may add some.
typedef enum tolk_status {
  TOLK_OK = 0,
  TOLK_TIMED_OUT = 1,         ///< no answer within the limit; the method may still run
  TOLK_CANCELLED = 2,         ///< tolk_client_cancel, a progress callback, or the peer
  TOLK_GONE = 3,              ///< the peer has ended the connection, or is closing
  TOLK_CLOSED = 4,            ///< this end is closed
  TOLK_NOT_CONNECTED = 5,     ///< nobody can be reached there, or there is no such client
  TOLK_REFUSED = 6,           ///< the peer has another version, or is another user
  TOLK_CANNOT_LISTEN = 7,     ///< the address is taken or cannot be used
  TOLK_NO_METHOD = 8,         ///< the peer has no method of that name
  TOLK_FAILED = 9,            ///< the handler says so, by tolk_request_fail
  TOLK_WRONG_ARGUMENTS = 10,  ///< the handler takes others
  TOLK_UNANSWERED = 11,       ///< the handler dropped the request
  TOLK_BUSY = 12,             ///< a bound is reached, and waiting was not asked for
  TOLK_TOO_LARGE = 13,        ///< more bytes than a call, or the peer, takes
  TOLK_MALFORMED = 14,        ///< bytes that are not a block
  TOLK_BAD_ADDRESS = 15,      ///< the text is not an address
  TOLK_FILE = 16,             ///< a file, or a callback of a transfer, cannot be read or written
  TOLK_MISUSE = 17,           ///< an error in the calling program
  TOLK_NO_MEMORY = 18
} tolk_status;

/// Returns the name without prefix, in lower case: "timed_out".
TOLK_API const char* tolk_status_name(tolk_status status);

// All of these accept null and never return null, except tolk_error_details. What they
// return lives as long as the error. One that there was no memory for has the usual texts of its
// status alone.

/// TOLK_OK for null.
TOLK_API tolk_status tolk_error_status(const tolk_error* error);
/// All of it: "add at pipe:5000: timed out after 500 ms". One line, unless a handler's text has
/// several: it is kept as it is.
TOLK_API const char* tolk_error_text(const tolk_error* error);
/// What happened, without method and address. For TOLK_FAILED it is the handler's text.
TOLK_API const char* tolk_error_reason(const tolk_error* error);
/// The method that was called; empty when none was.
TOLK_API const char* tolk_error_method(const tolk_error* error);
/// The address that was connected to or listened on.
TOLK_API const char* tolk_error_address(const tolk_error* error);
/// Who was at the other end: on a server "client 3"; on a client "user 1000" if the server of that
/// user was refused. Otherwise empty: a server is known by its address.
TOLK_API const char* tolk_error_peer(const tolk_error* error);
/// What was expected, for instance a version; empty otherwise.
TOLK_API const char* tolk_error_wanted(const tolk_error* error);
/// What was there instead.
TOLK_API const char* tolk_error_found(const tolk_error* error);
/// What to try.
TOLK_API const char* tolk_error_hint(const tolk_error* error);
/// What tolk_request_fail was given. Failures on this side: the system's error number as libuv has
/// it, which is below 0, or 0.
TOLK_API int32_t tolk_error_code(const tolk_error* error);
/// What the handler added to its failure; null without.
TOLK_API const tolk_block* tolk_error_details(const tolk_error* error);
/// Returns another reference to the error, to be freed too.
TOLK_API tolk_error* tolk_error_copy(const tolk_error* error);
/// Frees what a function has given; not an error of an outcome.
TOLK_API void tolk_error_free(tolk_error* error);

// ---- Blocks ------------------------------------------------------------------------------------

/// The kinds of values.
typedef enum tolk_kind {
  TOLK_MISSING = 0,  ///< there is no value of that index
  TOLK_NONE = 1,     ///< a value that says: nothing
  TOLK_BOOL = 2,
  TOLK_INT = 3,   ///< of 64 bits
  TOLK_UINT = 4,  ///< above INT64_MAX only
  TOLK_DOUBLE = 5,
  TOLK_TEXT = 6,  ///< zero bytes inside are kept
  TOLK_BYTES = 7,
  TOLK_LIST = 8,  ///< a block whose values have positions
  TOLK_MAP = 9    ///< a block whose values have keys
} tolk_kind;

/// Makes an empty block. Never null: without memory it is the block "without memory", which stays
/// empty, and a call with it fails with TOLK_NO_MEMORY. All functions below accept null as well.
TOLK_API tolk_block* tolk_block_new(void);
/// Copies a block. The bytes are shared until one of the two is changed.
TOLK_API tolk_block* tolk_block_copy(const tolk_block* block);
/// Frees a block; those of tolk_block_inner go with theirs.
TOLK_API void tolk_block_free(tolk_block* block);
/// Removes all values.
TOLK_API void tolk_block_clear(tolk_block* block);

// Each of these adds one value at the next position, or under the key that was added right before
// it. They copy what they get. One that runs out of memory makes the block one without memory.

/// Gives the next value a key: a text that does not begin with "s_c_" or "tolk.". A later value of
/// the same key replaces the earlier one.
TOLK_API void tolk_block_add_key(tolk_block* block, const char* key);
/// The value of kind TOLK_NONE.
TOLK_API void tolk_block_add_none(tolk_block* block);
/// A bool.
TOLK_API void tolk_block_add_bool(tolk_block* block, bool value);
/// An integer; up to 32 bits it is one that older peers know.
TOLK_API void tolk_block_add_int(tolk_block* block, int64_t value);
/// An integer; one above INT64_MAX reads as TOLK_UINT.
TOLK_API void tolk_block_add_uint(tolk_block* block, uint64_t value);
/// A double.
TOLK_API void tolk_block_add_double(tolk_block* block, double value);
/// A text of `size` bytes, or TOLK_TO_ZERO.
TOLK_API void tolk_block_add_text(tolk_block* block, const char* text, size_t size);
/// Bytes.
TOLK_API void tolk_block_add_bytes(tolk_block* block, const void* bytes, size_t size);
/// Adds bytes without a copy. They must not change until `free_context` is called, by the last
/// block or message that holds them, on any thread.
TOLK_API void tolk_block_add_bytes_held(tolk_block* block, const void* bytes, size_t size,
                                        void* context, tolk_release free_context);
/// Adds the positional values of `elements` as one list.
TOLK_API void tolk_block_add_list(tolk_block* block, const tolk_block* elements);
/// Adds the keyed values of `entries` as one map.
TOLK_API void tolk_block_add_map(tolk_block* block, const tolk_block* entries);
/// Adds a list of integers.
TOLK_API void tolk_block_add_ints(tolk_block* block, const int64_t* values, size_t count);
/// Adds a list of doubles.
TOLK_API void tolk_block_add_doubles(tolk_block* block, const double* values, size_t count);

// Reading. Indexes from 0 are the positional values; the keyed ones follow them. Any index is
// allowed. Several threads may read a block that nobody changes. Pointers are valid until the block
// is changed or freed; bytes of a received block lie in the message.

/// The positional values.
TOLK_API size_t tolk_block_count(const tolk_block* block);
/// All values, the keyed ones included.
TOLK_API size_t tolk_block_total(const tolk_block* block);
/// Returns the index of the value under `key`, or TOLK_NOWHERE.
TOLK_API size_t tolk_block_find(const tolk_block* block, const char* key);
/// Returns the key of a keyed value, null otherwise.
TOLK_API const char* tolk_block_key(const tolk_block* block, size_t index);
/// Returns the kind, TOLK_MISSING without a value.
TOLK_API tolk_kind tolk_block_kind(const tolk_block* block, size_t index);

// A missing value, or one of another kind, reads as false, 0, null or an empty array: test a text
// before its use. But an int is also a double, a text also bytes and bytes also a text, since older
// peers do not tell these apart.

/// Reads a bool.
TOLK_API bool tolk_block_bool(const tolk_block* block, size_t index);
/// 0 too for a TOLK_UINT.
TOLK_API int64_t tolk_block_int(const tolk_block* block, size_t index);
/// 0 too for a negative TOLK_INT.
TOLK_API uint64_t tolk_block_uint(const tolk_block* block, size_t index);
/// Reads a double or an int.
TOLK_API double tolk_block_double(const tolk_block* block, size_t index);
/// `size`, which may be null, receives the size without the zero byte at the end.
TOLK_API const char* tolk_block_text(const tolk_block* block, size_t index, size_t* size);
/// The same for bytes.
TOLK_API const void* tolk_block_bytes(const tolk_block* block, size_t index, size_t* size);
/// The values of a list or a map; they live as long as `block`. Bytes that hold a block are
/// accepted.
TOLK_API const tolk_block* tolk_block_inner(const tolk_block* block, size_t index);
/// Copies the numbers of a list, at most `capacity`, and returns how many it has. 0 if one of them
/// is of another kind.
TOLK_API size_t tolk_block_ints(const tolk_block* block, size_t index, int64_t* to,
                                size_t capacity);
/// The same for doubles.
TOLK_API size_t tolk_block_doubles(const tolk_block* block, size_t index, double* to,
                                   size_t capacity);

/// Returns the encoded block and its size, valid until the block is changed or freed. Null for a
/// block that cannot be sent.
TOLK_API const void* tolk_block_encode(tolk_block* block, size_t* size);
/// Makes a block of encoded bytes, which it copies. Reserved keys are values here; a call leaves
/// them out. TOLK_MALFORMED: `wrong_at`, which may be null, receives the offset of what is wrong.
TOLK_API tolk_status tolk_block_parse(const void* bytes, size_t size, tolk_block** block,
                                      size_t* wrong_at, tolk_error** error);

// ---- Large data --------------------------------------------------------------------------------

// The data of a transfer travel in pieces beside the arguments or the result. They are not in
// memory as a whole at an end that uses a file or a callback, and may be larger than a block. The
// callbacks of a transfer run as others do, never inline, one at a time.

/// Reads the next bytes, at most `capacity`, and returns how many. 0 ends the transfer with
/// TOLK_FILE.
typedef size_t (*tolk_read)(void* context, void* to, size_t capacity);
/// Takes the next bytes. False ends the transfer with TOLK_FILE. If a handler's source or sink
/// fails, its caller gets TOLK_FAILED.
typedef bool (*tolk_write)(void* context, const void* bytes, size_t size);
/// False cancels the transfer. Called before the first byte, and then as the receiver confirms.
typedef bool (*tolk_progress)(void* context, uint64_t done, uint64_t total);

/// Bytes in memory, which must stay until `free_context` is called. Null without memory, here and
/// below.
TOLK_API tolk_source* tolk_source_memory(const void* bytes, size_t size, void* context,
                                         tolk_release free_context);
/// A file, as large as it is now.
TOLK_API tolk_status tolk_source_file(const char* path, tolk_source** source, tolk_error** error);
/// `total` bytes of a callback.
TOLK_API tolk_source* tolk_source_callback(uint64_t total, tolk_read read, void* context,
                                           tolk_release free_context);
/// For a source that no function has taken.
TOLK_API void tolk_source_free(tolk_source* source);

/// A file, which is made or emptied now, and removed unless a transfer, or a call without data,
/// succeeds. One that is no regular file stays.
TOLK_API tolk_status tolk_sink_file(const char* path, tolk_sink** sink, tolk_error** error);
/// A callback, which gets the bytes in order.
TOLK_API tolk_sink* tolk_sink_callback(tolk_write write, void* context, tolk_release free_context);
/// For a `write` that is about to return false: the reason that the sender gets. Copies the text.
TOLK_API void tolk_sink_explain(tolk_sink* sink, const char* text);
/// For a sink that no function has taken.
TOLK_API void tolk_sink_free(tolk_sink* sink);

// ---- Calls to peers ----------------------------------------------------------------------------

/// Bits of `flags`.
enum {
  /// The callback runs on the loop thread: quickest, for code that never waits.
  TOLK_INLINE = 1,
  /// Methods with this bit take the calls of a peer in order of arrival, one at a time: the next
  /// begins when the handler has returned and the request is answered.
  TOLK_ORDERED = 2
};

/// How a call ended. Valid during the callback.
typedef struct tolk_outcome {
  size_t size;               ///< of this struct
  tolk_status status;        ///< TOLK_OK: there is a result
  const tolk_block* result;  ///< null unless status is TOLK_OK
  const tolk_error* error;   ///< null if it is
  uint64_t call;             ///< what the start returned
  uint64_t client;           ///< on a server: who was called
  size_t left;               ///< how many outcomes are still to come: 0, except with TOLK_ALL
} tolk_outcome;

/// Called once for each call that was started, whatever happens; for TOLK_ALL once for each client
/// that was connected, and once without one. Those for TOLK_ALL come one after the other: when
/// the one whose `left` is 0 runs, the others have returned.
typedef void (*tolk_done)(void* context, const tolk_outcome* outcome);

/// A call.
typedef struct tolk_call {
  size_t size;  ///< of this struct
  /// "tolk.describe" asks a peer what methods it has: three lists of names, signatures,
  /// descriptions.
  const char* method;
  const tolk_block* arguments;  ///< null: none
  uint64_t client;              ///< on a server: a client's id, or TOLK_ALL with a `done`
  int32_t limit_ms;             ///< 0: the object's usual one. With a source: after the last piece
  unsigned flags;               ///< TOLK_INLINE: where `done` runs
  tolk_done done;               ///< null: the outcome is kept until the wait for it
  void* context;                ///< of `done` and `progress`
  /// Data that go along, and where data of the answer go; a sink gets nothing if there are none.
  /// Taken, whatever happens. Without a sink, a handler has the data as its first argument, and a
  /// caller as the first value of the result. A peer that does not know pieces gets and sends them
  /// like that, in one message of 2 GB at most.
  tolk_source* source;
  tolk_sink* sink;         ///< see `source`
  tolk_progress progress;  ///< of both; runs as `done` without flags would
  int32_t piece_limit_ms;  ///< for each piece of `source`; each one of the answer gives the call
                           ///< at least so much more time; 0: the usual limit
} tolk_call;

// ---- Calls of peers ----------------------------------------------------------------------------

/// Who is at the other end.
typedef struct tolk_peer {
  size_t size;          ///< of this struct
  uint64_t client;      ///< on a server: the id, never used again in this process. Else 0
  const char* address;  ///< "tcp4:127.0.0.1:40312", "pipe:5000"
  const char* user;     ///< local pipes: the user's number, on Windows the SID. Else empty
  int64_t process;      ///< local pipes: the process id. 0 if unknown
} tolk_peer;

/// Runs one call of a peer. The request is the handler's: it, or whoever gets the request from it,
/// ends it once, now or later, by tolk_request_answer, _fail or _free.
typedef void (*tolk_handler)(void* context, tolk_request* request);
/// Decides where data of `total` bytes go, before the first one. A null sink: into memory, as the
/// first argument. It must not end the request. A status other than TOLK_OK refuses the transfer,
/// and the sink is freed. Not called for data that a peer sends in one message.
typedef tolk_status (*tolk_accept)(void* context, const tolk_request* request, uint64_t total,
                                   tolk_sink** sink);

/// Further properties of a method.
typedef struct tolk_method_options {
  size_t size;                ///< of this struct
  unsigned flags;             ///< TOLK_INLINE, TOLK_ORDERED
  const char* signature;      ///< for those who ask what there is: "(int, int) -> int"
  const char* about;          ///< for the same: a sentence
  tolk_accept accept;         ///< null: data go into memory
  tolk_progress progress;     ///< of data that arrive
  tolk_release free_context;  ///< of `context`; may be null
} tolk_method_options;

/// Makes an empty table. Any number of clients and servers may use it; each keeps it as long as it
/// needs it. Changes count for all of them at once.
TOLK_API tolk_methods* tolk_methods_new(void);
/// `name`: null is the catch-all, for calls of all other names. `options` may be null.
/// TOLK_MISUSE: the name is there, is empty or "retval", or begins with "s_c_" or "tolk.".
TOLK_API tolk_status tolk_methods_add(tolk_methods* methods, const char* name, tolk_handler handler,
                                      void* context, const tolk_method_options* options,
                                      tolk_error** error);
/// Calls that have arrived still run. False: there was no such method.
TOLK_API bool tolk_methods_remove(tolk_methods* methods, const char* name);
/// Frees the host's reference; clients and servers keep theirs.
TOLK_API void tolk_methods_free(tolk_methods* methods);

// What these return lives as long as the request.

/// Never null.
TOLK_API const tolk_block* tolk_request_arguments(const tolk_request* request);
/// The name that the peer called, also for a catch-all.
TOLK_API const char* tolk_request_method(const tolk_request* request);
/// Who called.
TOLK_API const tolk_peer* tolk_request_peer(const tolk_request* request);
/// The client that was called, to call the server back; null if a server was. After its end, calls
/// with it fail with TOLK_CLOSED.
TOLK_API tolk_client* tolk_request_client(const tolk_request* request);
/// The same for a server.
TOLK_API tolk_server* tolk_request_server(const tolk_request* request);
/// The milliseconds that the caller still waits, at least 1, or TOLK_FOREVER if it has not said so:
/// a limit for calls that serve the request.
TOLK_API int32_t tolk_request_limit_left(const tolk_request* request);
/// TOLK_OK while the caller waits, or a posted call's peer is there. Otherwise TOLK_CANCELLED,
/// TOLK_TIMED_OUT, TOLK_GONE or TOLK_CLOSED: the answer is not needed any more.
TOLK_API tolk_status tolk_request_state(const tolk_request* request);

/// Answers, from any thread. Takes the request and `result`, which may be null. One that cannot be
/// sent is a TOLK_FAILED that says why; without memory to say so, the connection ends.
TOLK_API void tolk_request_answer(tolk_request* request, tolk_block* result);
/// The same with data (see tolk_call::sink). Takes `source` too.
TOLK_API void tolk_request_answer_data(tolk_request* request, tolk_block* result,
                                       tolk_source* source);
/// Answers with a failure: TOLK_FAILED, TOLK_WRONG_ARGUMENTS, or TOLK_NO_METHOD from a catch-all.
/// Another status counts as TOLK_FAILED. Takes the request and `details`, which may be null and are
/// left out if they lack memory or have a reserved key.
TOLK_API void tolk_request_fail(tolk_request* request, tolk_status status, int32_t code,
                                const char* text, tolk_block* details);
/// Drops the request, the usual end of a posted one: a caller gets TOLK_UNANSWERED.
TOLK_API void tolk_request_free(tolk_request* request);

// ---- Where callbacks run, and the log ----------------------------------------------------------

/// Runs a task, or nothing if its object has ended it already. Frees it. Every task that `execute`
/// got must be run once; one that is not keeps its object's memory, and an ordered method waiting.
TOLK_API void tolk_task_run(tolk_task* task);

/// Has `task` run soon, by tolk_task_run on a thread of the host's choice; not in here.
typedef void (*tolk_execute)(void* context, tolk_task* task);

/// How much a line of the log matters.
typedef enum tolk_level { TOLK_DEBUG = 0, TOLK_INFO = 1, TOLK_WARNING = 2 } tolk_level;

/// Takes one line, on the thread where something happened. It must not wait. No line comes
/// after the free of its object has returned: the free waits for one that is being told, unless it
/// is called in the log.
typedef void (*tolk_log)(void* context, tolk_level level, const char* text);

// ---- Clients -----------------------------------------------------------------------------------

// An address is a text: "pipe:5000" or "pipe:editor"; "tcp4:127.0.0.1:5000", "tcp6:[::1]:5000",
// "tcp4:localhost:5000". A number alone is a pipe.

/// What a client may be told. Everything may be zero.
typedef struct tolk_client_options {
  size_t size;               ///< of this struct
  tolk_methods* methods;     ///< what the server may call; kept, not taken
  int32_t patience_ms;       ///< how long to try again after TOLK_NOT_CONNECTED
  int32_t connect_limit_ms;  ///< for one attempt, the version check included; 0: 10,000
  int32_t limit_ms;          ///< of calls that name none; 0: 5,000
  unsigned workers;  ///< threads for callbacks, started when needed; 0: 4. One that waits in a
                     ///< function of the library is replaced meanwhile, up to 256
  /// Runs all callbacks that are not inline, instead of the workers.
  tolk_execute execute;
  tolk_log log;  ///< takes the lines of the log; null: nobody does
  /// The server has ended the connection. Once; not because of a close or free by the host, but
  /// perhaps meanwhile. Handlers may still run, or begin later.
  void (*on_gone)(void* context, tolk_client* client, const tolk_error* why);
  void* context;              ///< of the three
  tolk_release free_context;  ///< of `context`; may be null
  size_t most_queued_bytes;   ///< of posts that are not yet written; 0: 64 MiB
  size_t most_frame_bytes;    ///< of one message received; 0: 2,147,483,643, the most
  size_t most_data_bytes;     ///< of transfers without a sink, all that are under way together,
                              ///< others fail with TOLK_BUSY, and one that is larger alone with
                              ///< TOLK_TOO_LARGE; 0: 2,147,483,643
  unsigned most_requests;     ///< under way at a time, others fail with TOLK_BUSY; 0: 10,000
} tolk_client_options;

/// Connects, and waits for the version check. `options` may be null.
TOLK_API tolk_status tolk_client_connect(const char* address, const tolk_client_options* options,
                                         tolk_client** client, tolk_error** error);
/// Calls and waits for the result: tolk_client_start and tolk_client_wait in one. `result` may be
/// null.
TOLK_API tolk_status tolk_client_call(tolk_client* client, const char* method,
                                      const tolk_block* arguments, int32_t limit_ms,
                                      tolk_block** result, tolk_error** error);
/// Starts a call and returns its number, which is never used again. Does not wait: what is wrong
/// with the call is its outcome. `done` does not run in here, except without memory or in a forked
/// child: then it runs at once, and the number is 0. A call without `done` has that number then,
/// too, and cannot be waited for.
TOLK_API uint64_t tolk_client_start(tolk_client* client, const tolk_call* call);
/// Waits for the outcome of a call without `done` and takes it, once. TOLK_MISUSE: there is no such
/// call. An outcome that nobody takes is kept until the client's end.
TOLK_API tolk_status tolk_client_wait(tolk_client* client, uint64_t call, tolk_block** result,
                                      tolk_error** error);
/// The same, at most `limit_ms`. TOLK_BUSY: the call goes on, and can be waited for again.
TOLK_API tolk_status tolk_client_wait_for(tolk_client* client, uint64_t call, int32_t limit_ms,
                                          tolk_block** result, tolk_error** error);
/// Ends a call with TOLK_CANCELLED and tells the server, if that knows about it. False: the call
/// had ended.
TOLK_API bool tolk_client_cancel(tolk_client* client, uint64_t call);
/// Calls without a result. Returns when the call is queued. If most_queued_bytes are queued it
/// waits, at most `wait_ms`, then fails with TOLK_BUSY. Posts and calls of one thread arrive in
/// order, except calls with data.
TOLK_API tolk_status tolk_client_post(tolk_client* client, const char* method,
                                      const tolk_block* arguments, int32_t wait_ms,
                                      tolk_error** error);
/// Refuses new calls, in both directions, and waits, at most `limit_ms`, until handlers have
/// returned and posts and answers are written. Then ends the connection: calls under way end with
/// TOLK_CLOSED. In a callback of the client it does not wait. TOLK_TIMED_OUT: a handler has not
/// returned, or something was not written. An inline callback that runs then holds up the end of
/// the connection, but not this function. A call whose data have begun to come counts as a handler:
/// a peer that sends no more of them holds up a close without a limit.
TOLK_API tolk_status tolk_client_close(tolk_client* client, int32_t limit_ms);
/// Closes at once and waits for callbacks that run, except when called in one: the rest then ends
/// by itself. Every `done` and on_gone that has not begun runs in here; handlers do not begin.
TOLK_API void tolk_client_free(tolk_client* client);

// ---- Servers -----------------------------------------------------------------------------------

/// What a server may be told. Everything may be zero. Members of the same name as a client's mean
/// the same.
typedef struct tolk_server_options {
  size_t size;            ///< of this struct
  tolk_methods* methods;  ///< what clients may call
  int32_t limit_ms;       ///< as tolk_client_options::limit_ms
  unsigned workers;       ///< as tolk_client_options::workers
  tolk_execute execute;   ///< as tolk_client_options::execute
  tolk_log log;           ///< as tolk_client_options::log
  /// A client has connected and can be called. Its calls wait until this is about to begin, and
  /// may run before it returns.
  void (*on_connect)(void* context, tolk_server* server, const tolk_peer* client);
  /// It has gone, or the server ends. Once for each on_connect, after that has returned. Handlers
  /// of its calls, and outcomes of calls to it, may still run, or begin later.
  void (*on_gone)(void* context, tolk_server* server, const tolk_peer* client);
  /// A client has stopped the server, or there was no memory to go on.
  void (*on_stopped)(void* context, tolk_server* server, const tolk_error* why);
  void* context;              ///< of the five
  tolk_release free_context;  ///< of `context`; may be null
  bool clients_may_stop;      ///< obey a client's "s_c_close_server"
  // Quotas. A client above one of the first two is not read from, its replies included, until it is
  // a quarter below. Calls whose data are on their way count apart: a client that has 1,000 of
  // them, or that many bytes of their arguments, gets TOLK_BUSY for more.
  size_t most_client_bytes;       ///< arguments of its requests, and all that is not yet written
                                  ///< to it; 0: 64 MiB
  unsigned most_client_requests;  ///< under way; 0: 1,000
  size_t most_queued_bytes;       ///< of posts to one client; above it posts wait
  size_t most_frame_bytes;        ///< a client that sends more is disconnected
  size_t most_data_bytes;         ///< of one client: as tolk_client_options::most_data_bytes. A
                                  ///< plain client is disconnected
  unsigned most_clients;          ///< others are disconnected at once; 0: as many as the system has
  int32_t hello_limit_ms;         ///< for a client's first message; 0: 60,000
} tolk_server_options;

/// Listens. Port 0 lets the system choose, and "fd:3" is a listening socket that the process
/// inherited, which the server takes; not on Windows. `options` may be null.
TOLK_API tolk_status tolk_server_listen(const char* address, const tolk_server_options* options,
                                        tolk_server** server, tolk_error** error);
/// The address with its real port, or with the path of an inherited pipe; lives as long as the
/// server.
TOLK_API const char* tolk_server_address(const tolk_server* server);
/// The port of a TCP server, 0 otherwise.
TOLK_API int tolk_server_port(const tolk_server* server);
/// Stores the ids of the clients that are connected, at most `capacity`, and returns how many are.
TOLK_API size_t tolk_server_clients(const tolk_server* server, uint64_t* ids, size_t capacity);
/// Ends the connection of a client at once. False: there is no such client.
TOLK_API bool tolk_server_disconnect(tolk_server* server, uint64_t client);

// As those of a client, with one of its clients as the peer.

/// See tolk_client_call.
TOLK_API tolk_status tolk_server_call(tolk_server* server, uint64_t client, const char* method,
                                      const tolk_block* arguments, int32_t limit_ms,
                                      tolk_block** result, tolk_error** error);
/// See tolk_client_start.
TOLK_API uint64_t tolk_server_start(tolk_server* server, const tolk_call* call);
/// See tolk_client_wait.
TOLK_API tolk_status tolk_server_wait(tolk_server* server, uint64_t call, tolk_block** result,
                                      tolk_error** error);
/// See tolk_client_wait_for.
TOLK_API tolk_status tolk_server_wait_for(tolk_server* server, uint64_t call, int32_t limit_ms,
                                          tolk_block** result, tolk_error** error);
/// See tolk_client_cancel.
TOLK_API bool tolk_server_cancel(tolk_server* server, uint64_t call);
/// `client`: TOLK_ALL posts to all; that there is none is no failure. The block is encoded once,
/// and copied for each, except large bytes. TOLK_BUSY then: some of them did not get it.
TOLK_API tolk_status tolk_server_post(tolk_server* server, uint64_t client, const char* method,
                                      const tolk_block* arguments, int32_t wait_ms,
                                      tolk_error** error);
/// Accepts nobody any more. The address is free soon: when it has waited and returns TOLK_OK.
/// Otherwise as tolk_client_close.
TOLK_API tolk_status tolk_server_close(tolk_server* server, int32_t limit_ms);
/// Waits until the server is closed, by whomever, at most `limit_ms`, or TOLK_FOREVER.
TOLK_API tolk_status tolk_server_wait_closed(tolk_server* server, int32_t limit_ms);
/// As tolk_client_free. Every on_connect, on_gone and on_stopped that has not begun runs in here
/// too.
TOLK_API void tolk_server_free(tolk_server* server);

#ifdef __cplusplus
}  // extern "C"
#endif

// NOLINTEND(modernize-use-using)

#endif  // TOLK_C_H
