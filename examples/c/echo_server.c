// Usage: echo_server ADDRESS
//
// Answers each call of "echo" with its arguments, on the loop thread: the handler never waits. All
// clients share that thread, so 10,000 of them cost the server no thread of their own. The program
// ends when a client asks for it.
#include <stdio.h>
#include <tolk/c.h>

static void echo(void* context, tolk_request* request) {
  (void)context;
  tolk_request_answer(request, tolk_block_copy(tolk_request_arguments(request)));
}

int main(int argc, char** argv) {
  const tolk_method_options quick = {.size = sizeof quick, .flags = TOLK_INLINE};
  tolk_methods* methods = tolk_methods_new();
  tolk_server_options options = {
      .size = sizeof options, .methods = methods, .clients_may_stop = true};
  tolk_server* server = NULL;
  tolk_error* error = NULL;
  tolk_methods_add(methods, "echo", echo, NULL, &quick, NULL);
  tolk_server_listen(argc > 1 ? argv[1] : "pipe:5000", &options, &server, &error);
  fprintf(stderr, "%s\n", error ? tolk_error_text(error) : "listening");
  tolk_server_wait_closed(server, TOLK_FOREVER);
  tolk_server_free(server);
  tolk_methods_free(methods);
  tolk_error_free(error);
}
