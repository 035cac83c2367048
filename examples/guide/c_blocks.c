#include <stdio.h>
#include <tolk/c.h>

int main(void) {
  tolk_block* point = tolk_block_new();
  tolk_block* block = tolk_block_new();
  const tolk_block* read = NULL;
  tolk_block_add_key(point, "x");
  tolk_block_add_int(point, 3);
  tolk_block_add_text(block, "disk nearly full", TOLK_TO_ZERO);
  tolk_block_add_int(block, INT64_MAX);
  tolk_block_add_key(block, "where");  // the key of the next value
  tolk_block_add_map(block, point);

  read = tolk_block_inner(block, tolk_block_find(block, "where"));
  printf("%s: %lld\n", tolk_block_text(block, 0, NULL), (long long)tolk_block_int(block, 1));
  printf("x = %lld\n", (long long)tolk_block_int(read, tolk_block_find(read, "x")));
  printf("a text: %d\n", tolk_block_kind(block, 0) == TOLK_TEXT);
  tolk_block_free(point);
  tolk_block_free(block);
}
