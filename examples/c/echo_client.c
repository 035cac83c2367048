// Usage: echo_client ADDRESS [CLIENTS]
//
// Connects CLIENTS times, starts a call with each before it waits for the first answer, counts the
// answers, and stops the server. Each client has a thread of the library.
#include <stdio.h>
#include <stdlib.h>
#include <tolk/c.h>

static tolk_client* connect_to(const char* address) {
  tolk_client* client = NULL;
  tolk_error* error = NULL;
  if (tolk_client_connect(address, NULL, &client, &error) != TOLK_OK)
    fprintf(stderr, "%s\n", tolk_error_text(error));
  tolk_error_free(error);
  return client;
}

static uint64_t start_echo(tolk_client* client, int number) {
  tolk_block* arguments = tolk_block_new();
  tolk_call call = {.size = sizeof call, .method = "echo", .arguments = arguments};
  uint64_t started = 0;
  tolk_block_add_int(arguments, number);
  started = tolk_client_start(client, &call);
  tolk_block_free(arguments);
  return started;
}

static bool is_echo(tolk_client* client, uint64_t call, int number) {
  tolk_block* result = NULL;
  const bool same = tolk_client_wait(client, call, &result, NULL) == TOLK_OK &&
                    tolk_block_int(result, 0) == number;
  tolk_block_free(result);
  return same;
}

int main(int argc, char** argv) {
  const char* address = argc > 1 ? argv[1] : "pipe:5000";
  const int count = argc > 2 ? atoi(argv[2]) : 100;
  tolk_client** clients = calloc((size_t)count, sizeof *clients);
  uint64_t* calls = calloc((size_t)count, sizeof *calls);
  int good = 0;
  for (int i = 0; i < count; ++i) clients[i] = connect_to(address);
  for (int i = 0; i < count; ++i) calls[i] = start_echo(clients[i], i);
  for (int i = 0; i < count; ++i) good += is_echo(clients[i], calls[i], i);
  printf("%d of %d answers\n", good, count);
  if (count > 0) tolk_client_call(clients[0], "s_c_close_server", NULL, 0, NULL, NULL);
  for (int i = 0; i < count; ++i) tolk_client_free(clients[i]);
  free(calls);
  free(clients);
  return good == count ? 0 : 1;
}
