#include <stdio.h>
#include <tolk/c.h>

static void store(void* context, tolk_request* request) {
  (void)context;
  tolk_request_fail(request, TOLK_FAILED, 28, "the disk is full", NULL);
}

static void call(tolk_client* client, const char* method) {
  tolk_error* error = NULL;
  if (tolk_client_call(client, method, NULL, 1000, NULL, &error) == TOLK_FAILED)
    printf("code %d\n", (int)tolk_error_code(error));
  printf("%s\n  try: %s\n", tolk_error_text(error), tolk_error_hint(error));
  tolk_error_free(error);
}

int main(int argc, char** argv) {
  const char* where = argc > 1 ? argv[1] : "pipe:5000";
  tolk_methods* methods = tolk_methods_new();
  tolk_server_options options = {.size = sizeof options, .methods = methods};
  tolk_server* server = NULL;
  tolk_client* client = NULL;
  tolk_methods_add(methods, "store", store, NULL, NULL, NULL);
  tolk_server_listen(where, &options, &server, NULL);
  tolk_client_connect(where, NULL, &client, NULL);
  call(client, "store");
  call(client, "stare");
  tolk_server_close(server, 0);
  call(client, "store");
  tolk_client_free(client);
  tolk_server_free(server);
  tolk_methods_free(methods);
}
