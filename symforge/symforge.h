/* symforge.h: the C interface of symforge, in the shared library libsymforge.so.1.
 *
 * Finds the function, source line, inlined calls and unwind data of code addresses in symbol files:
 * Breakpad text and SYMB, as the program `symforge` writes them.
 *
 *   symforge_module* module = NULL;
 *   if (symforge_module_open("a.symb", &module) != SYMFORGE_OK) {
 *     fprintf(stderr, "%s\n", symforge_last_error());
 *     return 1;
 *   }
 *   symforge_frame frames[32] = {{.size = sizeof frames[0]}};
 *   symforge_answer answer = {.size = sizeof answer};
 *   if (symforge_resolve(module, 0x1004, &answer, frames, 32) == SYMFORGE_OK) {
 *     for (uint32_t i = 0; i < answer.frame_count; ++i) puts(frames[i].function);
 *   }
 *   symforge_module_close(module);
 *
 * The following holds for all operations.
 *
 * Addresses are relative to the start of the image (RVAs): subtract the load address. They are 64
 * bits wide in text; SYMB has 32 bits, and only addresses below 4 GiB are in its functions.
 *
 * Structures begin with their size in bytes, which the caller sets to sizeof before the call. For
 * an array, set the size of the first element; it is the distance between elements. The library
 * fills the fields that it knows and sets the others to zero. So a program and a library of
 * different ages work together.
 *
 * Strings that are returned end with a NUL and have the encoding of the symbol file, usually UTF-8.
 * They are not checked to be UTF-8. They belong to the module and live as long as it, unless
 * something else is said. Strings that are passed are copied where the library needs them later.
 *
 * Errors: an operation that returns symforge_status returns SYMFORGE_OK or one of the codes below.
 * symforge_last_error() then has a text. If it fails, its results are null or zero. Nothing is
 * written to a standard stream, no operation ends the process, and no C++ exception leaves the
 * library, also when memory runs out.
 *
 * Threads: a module never changes after it is opened, and any number of threads may use it at once.
 * The store has its own locks. The caller ensures that a module or store is not used after its last
 * reference is released.
 *
 * Untrusted symbol files: any bytes may be opened. One lookup takes less than 10 ms. What the
 * lookup returns is as long as the file made it; bound what you copy.
 */
#ifndef SYMFORGE_SYMFORGE_H_
#define SYMFORGE_SYMFORGE_H_

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define SYMFORGE_API __attribute__((visibility("default")))
#else
#define SYMFORGE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Errors, version and log ------------------------------------------------------------------
 */

typedef int32_t symforge_status;
enum {
  SYMFORGE_OK = 0,
  SYMFORGE_ERROR_ARGUMENT = 1,  /* a null pointer, a wrong size, or a name that is not allowed */
  SYMFORGE_ERROR_NOT_FOUND = 2, /* no such file, or nothing is known about the address */
  SYMFORGE_ERROR_READ = 3,   /* the file cannot be read, is not a regular file, or is too large */
  SYMFORGE_ERROR_FORMAT = 4, /* not a symbol file, or a damaged one */
  SYMFORGE_ERROR_TOO_SMALL = 5, /* the caller's memory is too small; see the operation */
  SYMFORGE_ERROR_MEMORY = 6,    /* out of memory */
  SYMFORGE_ERROR_INTERNAL = 7   /* a fault of the library; the log has more */
};

/* The version of the library: major * 10000 + minor * 100 + patch. */
SYMFORGE_API uint32_t symforge_version(void);

/* A short text for a code, such as "not found". Never null, also for unknown codes. Static. */
SYMFORGE_API const char* symforge_status_text(symforge_status status);

/* What went wrong in the last operation of this thread that failed: one line without line end, at
 * most 511 bytes, with file names printable. Empty if none has failed. Valid until the next failure
 * on this thread. Operations that succeed do not change it. */
SYMFORGE_API const char* symforge_last_error(void);

enum {
  SYMFORGE_LOG_INFORMATION = 0, /* what is loaded and dropped */
  SYMFORGE_LOG_ERROR = 1        /* failures, and lines of a text that do not parse (10 per text) */
};

/* Receives one log line without line end, valid during the call. Called on the thread that logs,
 * also on several at once. Must not call the library, throw or longjmp. */
typedef void (*symforge_log_callback)(void* context, int32_t severity, const char* message);

/* Sets the log callback of the process, and the lowest severity that it receives. At first there is
 * none, and null removes it: then nothing is logged. A call that another thread has begun may still
 * reach the previous callback. */
SYMFORGE_API void symforge_set_log(symforge_log_callback callback, void* context,
                                   int32_t lowest_severity);

/* ---- Modules ----------------------------------------------------------------------------------
 */

/* The symbols of one executable or library. Modules are counted references: each open, retain and
 * find adds one, each close releases one, and the last one frees the module with its strings. */
typedef struct symforge_module symforge_module;

/* Opens a symbol file, and stores a new module in `*module`.
 *
 * SYMB is mapped read-only and validated: a file that is damaged, or on which lookups would cost
 * too much, is SYMFORGE_ERROR_FORMAT. The file must not be truncated or changed while it is open;
 * replace it by renaming another one over it, as symforge does. Text is parsed, and the file is
 * then closed. It must begin with a MODULE line that has all four fields. Lines that do not parse
 * are skipped and counted. Files of 2 GiB or more are SYMFORGE_ERROR_READ. */
SYMFORGE_API symforge_status symforge_module_open(const char* path, symforge_module** module);

/* As above, from `size` bytes of memory. SYMB is used in place: the memory belongs to the caller,
 * must not change, and must outlive the module. Text is copied and may be released afterwards. The
 * memory is only read and needs no alignment. */
SYMFORGE_API symforge_status symforge_module_open_memory(const void* data, size_t size,
                                                         symforge_module** module);

/* Adds a reference. Null is allowed. Never fails. */
SYMFORGE_API void symforge_module_retain(symforge_module* module);

/* Releases a reference. Null is allowed. Never fails. */
SYMFORGE_API void symforge_module_close(symforge_module* module);

enum { SYMFORGE_FORMAT_TEXT = 1, SYMFORGE_FORMAT_SYMB = 2 };

typedef struct symforge_module_info {
  uint32_t size;
  uint32_t format; /* SYMFORGE_FORMAT_* */
  /* Of the MODULE line. */
  const char* operating_system;
  const char* architecture;
  const char* debug_file;
  const char* debug_identifier;
  /* Of the INFO CODE_ID line; empty if there is none. */
  const char* code_file;
  const char* code_identifier;
  uint64_t function_count;
  /* Lines of the text that did not parse and were skipped, and the number of the first one (0:
   * none). Lines are counted from 1, and empty lines are not counted. Always 0 for SYMB. */
  uint64_t bad_line_count;
  uint64_t first_bad_line;
  /* What the module holds: the size of a mapped file or of the caller's block, or the memory for
   * parsed text. */
  uint64_t byte_count;
} symforge_module_info;

/* Fills `*info`. The strings live as long as the module. */
SYMFORGE_API symforge_status symforge_module_get_info(const symforge_module* module,
                                                      symforge_module_info* info);

/* ---- Lookups ----------------------------------------------------------------------------------
 */

enum {
  SYMFORGE_FOUND_NOTHING = 0,  /* no symbol applies to the address */
  SYMFORGE_FOUND_FUNCTION = 1, /* the address is inside a function */
  SYMFORGE_FOUND_PUBLIC = 2    /* the nearest public symbol below; its end is unknown */
};

/* One call at an address. Every frame is at the same address: the code of an inlined call is part
 * of its caller. */
typedef struct symforge_frame {
  uint32_t size;
  uint32_t line;        /* position in that function; 0 if unknown */
  const char* function; /* never null */
  const char* file;     /* path as the compiler recorded it; null if unknown */
} symforge_frame;

/* What is known about an address. Its frames are frames[first_frame] and those that follow. */
typedef struct symforge_answer {
  uint32_t size;
  uint32_t found;          /* SYMFORGE_FOUND_* */
  uint32_t frame_count;    /* 0 if nothing was found, otherwise 1 and the number of inlined calls */
  uint32_t reserved;       /* 0 */
  uint64_t first_frame;    /* index of the innermost frame; the last one is the function itself */
  uint64_t function_start; /* address of the function or public symbol */
  uint64_t line_start;     /* address of the first code of the function's line; 0 if unknown */
  const char* function;    /* name of the function or public symbol; null if nothing was found */
} symforge_answer;

/* Looks up one address. Writes the innermost frame first, into at most `frame_capacity` elements;
 * `frames` may be null if that is 0. An address without symbols is no error: answer->found says it.
 *
 * SYMFORGE_ERROR_TOO_SMALL: the answer is complete, but no frame is written; answer->frame_count is
 * the capacity that the lookup needs. */
SYMFORGE_API symforge_status symforge_resolve(const symforge_module* module, uint64_t address,
                                              symforge_answer* answer, symforge_frame* frames,
                                              size_t frame_capacity);

/* Looks up `count` addresses, in any order, equal ones allowed. Faster than one at a time. Writes
 * answers[i] for addresses[i], and all frames one after the other. `*answered`, which may be null,
 * is the number of answers that are complete.
 *
 * SYMFORGE_ERROR_TOO_SMALL: the frames of address *answered did not fit; the answers before it are
 * complete, and answers[*answered].frame_count is the number of frames that it needs. Use these
 * answers, and continue with the addresses from *answered on, with all of the frames again. */
SYMFORGE_API symforge_status symforge_resolve_array(const symforge_module* module,
                                                    const uint64_t* addresses, size_t count,
                                                    symforge_answer* answers,
                                                    symforge_frame* frames, size_t frame_capacity,
                                                    size_t* answered);

enum {
  SYMFORGE_FRAME_DATA_FPO = 0,
  SYMFORGE_FRAME_DATA_PROGRAM = 4, /* usually with a program */
  SYMFORGE_FRAME_DATA_UNKNOWN = -1 /* only parameter_size is known, from the function */
};

/* How to unwind 32-bit x86 code, from a STACK WIN line. Sizes are in bytes, except in lines of type
 * 0 written by symforge: there parameter_size and local_size are in 4-byte words, and
 * saved_register_size is a number of registers. */
typedef struct symforge_frame_data {
  uint32_t size;
  int32_t type; /* SYMFORGE_FRAME_DATA_* */
  uint32_t prolog_size;
  uint32_t epilog_size;
  uint32_t parameter_size;
  uint32_t saved_register_size;
  uint32_t local_size;
  uint32_t max_stack_size;
  uint32_t allocates_base_pointer; /* 0 or 1; only meaningful without a program */
  uint32_t reserved;               /* 0 */
  uint64_t text_size;              /* bytes of the program and its NUL */
} symforge_frame_data;

/* Finds the frame data of an address: the narrowest range that contains it, and a program before
 * FPO. Writes the program, which may be empty, with a NUL to `text`, which belongs to the caller
 * and may be null if `text_capacity` is 0. With SYMB, the parameter size of a
 * SYMFORGE_FRAME_DATA_UNKNOWN record is not reliable.
 *
 * SYMFORGE_ERROR_NOT_FOUND: nothing is known. SYMFORGE_ERROR_TOO_SMALL: `*data` is complete, but
 * `text` is not written; data->text_size is the capacity that the lookup needs. */
SYMFORGE_API symforge_status symforge_find_frame_data(const symforge_module* module,
                                                      uint64_t address, symforge_frame_data* data,
                                                      char* text, size_t text_capacity);

typedef struct symforge_frame_rules {
  uint32_t size;
  uint32_t rule_count;
  uint64_t text_size; /* bytes of all rules */
} symforge_frame_rules;

/* Finds the call frame rules (STACK CFI) that apply at an address: those of the range that contains
 * it, updated up to the address.
 *
 * `text` receives rule_count pairs of strings, each with a NUL: the register as it is written in
 * the file, such as "$rbp", and its postfix expression, such as ".cfa 16 - ^". The first ones are
 * ".cfa", the canonical frame address, and ".ra", the return address, if they are known; the others
 * follow in ascending order of their bytes. `text` belongs to the caller and may be null if
 * `text_capacity` is 0.
 *
 * SYMFORGE_ERROR_NOT_FOUND: there are no rules. SYMFORGE_ERROR_TOO_SMALL: `*rules` is complete, but
 * `text` is not written; rules->text_size is the capacity that the lookup needs. */
SYMFORGE_API symforge_status symforge_find_frame_rules(const symforge_module* module,
                                                       uint64_t address,
                                                       symforge_frame_rules* rules, char* text,
                                                       size_t text_capacity);

/* ---- The store --------------------------------------------------------------------------------
 */

/* A source of modules: finds symbol files in symbol trees, opens each once, shares it among
 * threads, and keeps modules that nobody holds for the next time. */
typedef struct symforge_store symforge_store;

typedef struct symforge_store_options {
  uint32_t size;
  uint32_t tree_count;
  /* The folders of the trees, searched in this order. */
  const char* const* trees;
  /* Limit for the bytes of modules that nobody holds. Beyond it, the least recently used ones are
   * closed. Modules that somebody holds do not count. 0: nothing is kept. */
  uint64_t idle_byte_limit;
  /* For how long it is remembered that a module was not found or could not be opened, in
   * milliseconds. 0: each search looks at the trees. */
  uint64_t missing_milliseconds;
} symforge_store_options;

/* Makes a store. The trees need not exist yet. */
SYMFORGE_API symforge_status symforge_store_open(const symforge_store_options* options,
                                                 symforge_store** store);

/* Finds the module of a debug file and debug identifier, such as "a.pdb" and
 * "515D2ED965ADFF5D4C4C44205044422E1", and stores a reference in `*module`, which the caller
 * closes.
 *
 * In each tree, first TREE/a.pdb/515D...1/a.symb is tried, then a.sym; if one cannot be opened, the
 * search goes on, and the first failure is the result if nothing is found. Instead of the debug
 * identifier, a code identifier can be given where the tree has a link for it. Names that would
 * leave the tree (empty, "." or "..", or with a "/") are SYMFORGE_ERROR_ARGUMENT.
 *
 * While one thread opens a module, others that search for it wait. A file that is replaced in the
 * tree is noticed when its module is opened again, after it has been evicted or forgotten. */
SYMFORGE_API symforge_status symforge_store_find(symforge_store* store, const char* debug_file,
                                                 const char* debug_identifier,
                                                 symforge_module** module);

/* Closes the modules that nobody holds, and forgets which ones were missing. Modules that somebody
 * holds are opened anew by the next search. */
SYMFORGE_API symforge_status symforge_store_forget(symforge_store* store);

typedef struct symforge_store_info {
  uint32_t size;
  uint32_t reserved; /* 0 */
  uint64_t held_count;
  uint64_t held_bytes; /* as byte_count of symforge_module_info */
  uint64_t idle_count;
  uint64_t idle_bytes;
  uint64_t missing_count; /* remembered as missing, perhaps for a time that has passed */
  /* Since the store was made. */
  uint64_t open_count;  /* files that were opened as a module */
  uint64_t hit_count;   /* searches answered by a module that was open, or known to be missing */
  uint64_t evict_count; /* modules closed because of the limit */
} symforge_store_info;

SYMFORGE_API symforge_status symforge_store_get_info(symforge_store* store,
                                                     symforge_store_info* info);

/* Releases the store. Modules that somebody holds stay valid until they are closed. Null is
 * allowed. Never fails. */
SYMFORGE_API void symforge_store_close(symforge_store* store);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* SYMFORGE_SYMFORGE_H_ */
