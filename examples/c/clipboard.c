// Usage: clipboard ADDRESS
//
// Keeps the last texts that its clients copied. All handlers run on the main thread, between its
// own events, as in a program with windows: so the history needs no lock. `execute` passes the
// tasks by a pipe, which the main loop polls beside standard input. An empty line ends the program.
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tolk/c.h>
#include <unistd.h>

enum { most = 10 };
static char* history[most];  // the latest first
static int tasks[2];

static void execute(void* context, tolk_task* task) {
  (void)context;
  if (write(tasks[1], &task, sizeof task) != sizeof task) abort();
}

static void run_one_task(void) {
  tolk_task* task = NULL;
  if (read(tasks[0], &task, sizeof task) == sizeof task) tolk_task_run(task);
}

static void copy(void* context, tolk_request* request) {
  const char* text = tolk_block_text(tolk_request_arguments(request), 0, NULL);
  (void)context;
  if (!text) {
    tolk_request_fail(request, TOLK_WRONG_ARGUMENTS, 0, "not a text", NULL);
    return;
  }
  free(history[most - 1]);
  memmove(history + 1, history, sizeof history - sizeof *history);
  history[0] = strdup(text);
  printf("copied: %s\n", text);
  fflush(stdout);
  tolk_request_answer(request, NULL);
}

static void list(void* context, tolk_request* request) {
  tolk_block* texts = tolk_block_new();
  (void)context;
  for (int i = 0; i < most && history[i]; ++i) tolk_block_add_text(texts, history[i], TOLK_TO_ZERO);
  tolk_request_answer(request, texts);
}

static void loop(void) {
  struct pollfd events[2] = {{.fd = STDIN_FILENO, .events = POLLIN},
                             {.fd = tasks[0], .events = POLLIN}};
  char input[2] = "";
  do {
    poll(events, 2, -1);
    if (events[1].revents) run_one_task();
  } while (!events[0].revents || (read(STDIN_FILENO, input, 1) == 1 && input[0] != '\n'));
}

int main(int argc, char** argv) {
  const tolk_method_options in_order = {.size = sizeof in_order, .flags = TOLK_ORDERED};
  tolk_methods* methods = tolk_methods_new();
  tolk_server_options options = {.size = sizeof options, .methods = methods, .execute = execute};
  tolk_server* server = NULL;
  tolk_error* error = NULL;
  struct pollfd left = {.events = POLLIN};
  if (pipe(tasks) != 0) return 1;
  tolk_methods_add(methods, "copy", copy, NULL, &in_order, NULL);
  tolk_methods_add(methods, "list", list, NULL, &in_order, NULL);
  tolk_server_listen(argc > 1 ? argv[1] : "pipe:5000", &options, &server, &error);
  puts(error ? tolk_error_text(error) : "press Enter to stop");
  fflush(stdout);
  if (server) loop();
  // After the free no task comes. Those that it has ended are still in the pipe, and are run once.
  tolk_server_free(server);
  for (left.fd = tasks[0]; poll(&left, 1, 0) == 1;) run_one_task();
  tolk_methods_free(methods);
  tolk_error_free(error);
  for (int i = 0; i < most; ++i) free(history[i]);
}
