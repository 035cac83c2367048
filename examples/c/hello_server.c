#include <stdio.h>
#include <tolk/c.h>

static void add(void* context, tolk_request* request) {
  const tolk_block* in = tolk_request_arguments(request);
  tolk_block* out = tolk_block_new();
  (void)context;
  tolk_block_add_int(out, tolk_block_int(in, 0) + tolk_block_int(in, 1));
  tolk_request_answer(request, out);
}

int main(int argc, char** argv) {
  tolk_methods* methods = tolk_methods_new();
  tolk_server_options options = {.size = sizeof options, .methods = methods};
  tolk_server* server = NULL;
  tolk_error* error = NULL;
  tolk_methods_add(methods, "add", add, NULL, NULL, NULL);
  tolk_server_listen(argc > 1 ? argv[1] : "pipe:5000", &options, &server, &error);
  fprintf(stderr, "%s\n", error ? tolk_error_text(error) : "press Enter to stop");
  if (server) getchar();
  tolk_server_free(server);
  tolk_methods_free(methods);
  tolk_error_free(error);
}
