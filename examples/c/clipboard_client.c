// Usage: clipboard_client ADDRESS [TEXT]
//
// Copies TEXT into the history, or prints the history.
#include <stdio.h>
#include <tolk/c.h>

static void print_texts(const tolk_block* texts) {
  for (size_t i = 0; i < tolk_block_count(texts); ++i) {
    const char* text = tolk_block_text(texts, i, NULL);
    printf("%s\n", text ? text : "(not a text)");
  }
}

int main(int argc, char** argv) {
  tolk_client* client = NULL;
  tolk_error* error = NULL;
  tolk_block* arguments = tolk_block_new();
  tolk_block* result = NULL;
  tolk_status status = TOLK_OK;
  if (argc > 2) tolk_block_add_text(arguments, argv[2], TOLK_TO_ZERO);
  status = tolk_client_connect(argc > 1 ? argv[1] : "pipe:5000", NULL, &client, &error);
  if (status == TOLK_OK)
    status = tolk_client_call(client, argc > 2 ? "copy" : "list", arguments, 0, &result, &error);
  if (error) fprintf(stderr, "%s\n", tolk_error_text(error));
  print_texts(result);
  tolk_block_free(arguments);
  tolk_block_free(result);
  tolk_error_free(error);
  tolk_client_free(client);
  return status == TOLK_OK ? 0 : 1;
}
