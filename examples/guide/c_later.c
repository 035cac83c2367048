#include <stdio.h>
#include <tolk/c.h>

static tolk_request* open_request;

static void ask(void* context, tolk_request* request) {
  (void)context;
  open_request = request;  // a handler may return before the answer
}

static void answer(void* context, tolk_request* request) {
  tolk_block* text = tolk_block_new();
  (void)context;
  tolk_block_add_text(text, "yes", TOLK_TO_ZERO);
  tolk_request_answer(open_request, text);  // takes both
  tolk_request_free(request);               // nobody waits for a post
}

int main(int argc, char** argv) {
  const char* where = argc > 1 ? argv[1] : "pipe:5000";
  const tolk_method_options quick = {.size = sizeof quick, .flags = TOLK_INLINE};
  tolk_methods* methods = tolk_methods_new();
  tolk_server_options options = {.size = sizeof options, .methods = methods};
  const tolk_call question = {.size = sizeof question, .method = "ask", .limit_ms = 1000};
  tolk_server* server = NULL;
  tolk_client* client = NULL;
  tolk_block* result = NULL;
  uint64_t call = 0;

  tolk_methods_add(methods, "ask", ask, NULL, &quick, NULL);
  tolk_methods_add(methods, "answer", answer, NULL, &quick, NULL);
  tolk_server_listen(where, &options, &server, NULL);
  tolk_client_connect(where, NULL, &client, NULL);

  call = tolk_client_start(client, &question);
  tolk_client_post(client, "answer", NULL, 0, NULL);
  if (tolk_client_wait(client, call, &result, NULL) == TOLK_OK)
    printf("%s\n", tolk_block_text(result, 0, NULL));

  printf("close: %s\n", tolk_status_name(tolk_server_close(server, 1000)));

  tolk_block_free(result);
  tolk_client_free(client);
  tolk_server_free(server);
  tolk_methods_free(methods);
}
