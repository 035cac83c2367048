/* The header and the blocks from C: compiled as pedantic C11, and run. */
#include <string.h>
#include <tolk/c.h>

static int failures = 0;
static void check(bool is_right) { failures += is_right ? 0 : 1; }

static void check_structs(void) {
  tolk_call call = {.size = sizeof call, .method = "add"};
  tolk_client_options client = {.size = sizeof client};
  tolk_server_options server = {.size = sizeof server};
  tolk_method_options method = {.size = sizeof method, .flags = TOLK_INLINE | TOLK_ORDERED};
  check(call.done == NULL && client.workers == 0 && !server.clients_may_stop);
  check(method.flags == 3);
}

static void check_blocks(void) {
  tolk_block* block = tolk_block_new();
  tolk_block* read = NULL;
  size_t size = 0;
  const void* bytes;
  tolk_block_add_int(block, 1);
  tolk_block_add_key(block, "text");
  tolk_block_add_text(block, "x", TOLK_TO_ZERO);
  bytes = tolk_block_encode(block, &size);
  check(tolk_block_parse(bytes, size, &read, NULL, NULL) == TOLK_OK);
  check(tolk_block_int(read, 0) == 1);
  check(strcmp(tolk_block_text(read, tolk_block_find(read, "text"), NULL), "x") == 0);
  tolk_block_free(read);
  tolk_block_free(block);
}

int main(void) {
  check(strcmp(tolk_version(), "1.1.0") == 0);
  check(strcmp(tolk_status_name(TOLK_NO_MEMORY), "no_memory") == 0);
  check(tolk_error_status(NULL) == TOLK_OK);
  check_structs();
  check_blocks();
  return failures;
}
