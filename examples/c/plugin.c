// Usage: plugin ADDRESS
//
// Serves a plugin host until that goes.
#include <semaphore.h>
#include <stdio.h>
#include <tolk/c.h>

static sem_t host_has_gone;

static void language(void* context, tolk_request* request) {
  tolk_block* answer = tolk_block_new();
  (void)context;
  tolk_block_add_text(answer, "en", TOLK_TO_ZERO);
  tolk_request_answer(request, answer);
}

static void render(void* context, tolk_request* request) {
  const char* text = tolk_block_text(tolk_request_arguments(request), 0, NULL);
  tolk_block* setting = NULL;
  tolk_error* error = NULL;
  tolk_block* answer = tolk_block_new();
  (void)context;
  if (tolk_client_call(tolk_request_client(request), "setting", NULL,
                       tolk_request_limit_left(request), &setting, &error) == TOLK_OK) {
    char line[100];
    const char* value = tolk_block_text(setting, 0, NULL);
    snprintf(line, sizeof line, "%s in %s", text ? text : "", value ? value : "");
    tolk_block_add_text(answer, line, TOLK_TO_ZERO);
    tolk_request_answer(request, answer);
  } else {
    tolk_request_fail(request, TOLK_FAILED, 0, tolk_error_text(error), answer);
  }
  tolk_block_free(setting);
  tolk_error_free(error);
}

static void on_gone(void* context, tolk_client* client, const tolk_error* why) {
  (void)context, (void)client, (void)why;
  sem_post(&host_has_gone);
}

int main(int argc, char** argv) {
  tolk_methods* methods = tolk_methods_new();
  tolk_client_options options = {
      .size = sizeof options, .methods = methods, .workers = 1, .on_gone = on_gone};
  tolk_client* client = NULL;
  tolk_error* error = NULL;
  sem_init(&host_has_gone, 0, 0);
  tolk_methods_add(methods, "render", render, NULL, NULL, NULL);
  tolk_methods_add(methods, "language", language, NULL, NULL, NULL);
  tolk_client_connect(argc > 1 ? argv[1] : "pipe:5000", &options, &client, &error);
  if (error) fprintf(stderr, "%s\n", tolk_error_text(error));
  if (client) sem_wait(&host_has_gone);
  tolk_client_free(client);
  tolk_methods_free(methods);
  tolk_error_free(error);
  sem_destroy(&host_has_gone);
}
