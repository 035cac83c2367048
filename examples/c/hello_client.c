#include <stdio.h>
#include <tolk/c.h>

int main(int argc, char** argv) {
  tolk_client* client = NULL;
  tolk_error* error = NULL;
  tolk_block* result = NULL;
  tolk_block* arguments = tolk_block_new();
  tolk_block_add_int(arguments, 2);
  tolk_block_add_int(arguments, 3);
  if (tolk_client_connect(argc > 1 ? argv[1] : "pipe:5000", NULL, &client, &error) == TOLK_OK)
    tolk_client_call(client, "add", arguments, 500, &result, &error);
  if (error) fprintf(stderr, "%s: %s\n", tolk_error_text(error), tolk_error_hint(error));
  if (result) printf("2 + 3 = %d\n", (int)tolk_block_int(result, 0));
  tolk_block_free(arguments);
  tolk_block_free(result);
  tolk_error_free(error);
  tolk_client_free(client);
}
