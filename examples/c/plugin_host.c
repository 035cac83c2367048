// Usage: plugin_host ADDRESS
//
// Asks each plugin that connects to render a text. While it does so the plugin asks for a setting,
// and for that the host asks the plugin once more: three nested calls, with one worker on each
// side.
#include <stdio.h>
#include <tolk/c.h>

// The caller of a nested call waits no longer than its own caller does.
static void setting(void* context, tolk_request* request) {
  tolk_server* server = tolk_request_server(request);
  const uint64_t plugin = tolk_request_peer(request)->client;
  tolk_block* answer = NULL;
  tolk_error* error = NULL;
  (void)context;
  if (tolk_server_call(server, plugin, "language", NULL, tolk_request_limit_left(request), &answer,
                       &error) == TOLK_OK) {
    tolk_request_answer(request, answer);
  } else {
    tolk_request_fail(request, TOLK_FAILED, 0, tolk_error_text(error), NULL);
  }
  tolk_error_free(error);
}

static void on_connect(void* context, tolk_server* server, const tolk_peer* plugin) {
  tolk_block* page = tolk_block_new();
  tolk_block* result = NULL;
  tolk_error* error = NULL;
  const char* text = NULL;
  (void)context;
  tolk_block_add_text(page, "title", TOLK_TO_ZERO);
  tolk_server_call(server, plugin->client, "render", page, 2000, &result, &error);
  text = error ? tolk_error_text(error) : tolk_block_text(result, 0, NULL);
  printf("plugin %d: %s\n", (int)plugin->client, text ? text : "no text");
  fflush(stdout);
  tolk_error_free(error);
  tolk_block_free(result);
  tolk_block_free(page);
}

int main(int argc, char** argv) {
  tolk_methods* methods = tolk_methods_new();
  tolk_server_options options = {
      .size = sizeof options, .methods = methods, .workers = 1, .on_connect = on_connect};
  tolk_server* server = NULL;
  tolk_error* error = NULL;
  tolk_methods_add(methods, "setting", setting, NULL, NULL, NULL);
  tolk_server_listen(argc > 1 ? argv[1] : "pipe:5000", &options, &server, &error);
  fprintf(stderr, "%s\n", error ? tolk_error_text(error) : "press Enter to stop");
  if (server) getchar();
  tolk_server_close(server, 1000);
  tolk_server_free(server);
  tolk_methods_free(methods);
  tolk_error_free(error);
}
