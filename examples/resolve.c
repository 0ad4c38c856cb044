/* resolve SYMBOL_FILE: a complete host of libsymforge.so.1 in C.
 *
 * SYMBOL_FILE is a text symbol file or a SYMB file. Standard input has one hexadecimal address per
 * line, relative to the image. Standard output has one line for each, in the same order, with
 * fields separated by tabs: the address, function, file and line, then "function file:line" of each
 * inlined call, innermost first. Unknown values are "?".
 *
 * Build: cc resolve.c $(pkg-config --cflags --libs libsymforge) -o resolve
 */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <symforge/symforge.h>

enum { kPortion = 1024 };

static void print_position(const symforge_frame* frame) {
  if (frame->file == NULL) {
    fputs("?", stdout);
  } else {
    printf("%s:%" PRIu32, frame->file, frame->line);
  }
}

static void print_answer(uint64_t address, const symforge_answer* answer,
                         const symforge_frame* frames) {
  printf("0x%" PRIx64 "\t", address);
  if (answer->found == SYMFORGE_FOUND_NOTHING) {
    puts("?\t?");
    return;
  }
  const symforge_frame* innermost = frames + answer->first_frame;
  const uint32_t calls = answer->frame_count - 1;
  printf("%s\t", answer->function);
  print_position(&innermost[calls]); /* the last frame is the function itself */
  for (uint32_t i = 0; i < calls; ++i) {
    printf("\t%s ", innermost[i].function);
    print_position(&innermost[i]);
  }
  puts("");
}

/* Answers `count` addresses. The memory for frames grows when one address needs more. */
static int answer_all(const symforge_module* module, const uint64_t* addresses, size_t count,
                      symforge_frame** frames, size_t* capacity) {
  static symforge_answer answers[kPortion];
  while (count > 0) {
    size_t answered = 0;
    answers[0].size = sizeof answers[0];
    (*frames)[0].size = sizeof(symforge_frame);
    const symforge_status status =
        symforge_resolve_array(module, addresses, count, answers, *frames, *capacity, &answered);
    for (size_t i = 0; i < answered; ++i) print_answer(addresses[i], &answers[i], *frames);
    if (status == SYMFORGE_OK) return 0;
    if (status != SYMFORGE_ERROR_TOO_SMALL) return -1;
    if (answers[answered].frame_count > *capacity) {
      const size_t larger = answers[answered].frame_count;
      symforge_frame* memory = realloc(*frames, larger * sizeof(symforge_frame));
      if (memory == NULL) return -1;
      *frames = memory;
      *capacity = larger;
    }
    addresses += answered;
    count -= answered;
  }
  return 0;
}

static int answer_input(const symforge_module* module) {
  size_t capacity = 2 * kPortion;
  symforge_frame* frames = calloc(capacity, sizeof(symforge_frame));
  uint64_t addresses[kPortion];
  char line[64];
  int result = frames == NULL ? -1 : 0;
  size_t count = 0;
  while (result == 0) {
    const int at_end = fgets(line, sizeof line, stdin) == NULL;
    if (!at_end) addresses[count++] = strtoull(line, NULL, 16);
    if (count == kPortion || at_end) {
      result = answer_all(module, addresses, count, &frames, &capacity);
      count = 0;
    }
    if (at_end) break;
  }
  free(frames);
  return result;
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s SYMBOL_FILE\n", argv[0]);
    return 2;
  }
  symforge_module* module = NULL;
  if (symforge_module_open(argv[1], &module) != SYMFORGE_OK) {
    fprintf(stderr, "%s\n", symforge_last_error());
    return 1;
  }
  const int result = answer_input(module);
  if (result != 0) fprintf(stderr, "%s\n", symforge_last_error());
  symforge_module_close(module);
  return result == 0 ? 0 : 1;
}
