/* The layout of the structures of the C interface, which never changes: fields are only appended.
 * Compiled as C11 and as C++. */
#include <stddef.h>

#include "symforge/symforge.h"

#ifdef __cplusplus
#define CHECK(condition) static_assert(condition, #condition)
#else
#define CHECK(condition) _Static_assert(condition, #condition)
#endif
#define FIELD(type, field, offset) CHECK(offsetof(type, field) == (offset))

CHECK(sizeof(symforge_status) == 4);
CHECK(SYMFORGE_ERROR_ARGUMENT == 1 && SYMFORGE_ERROR_INTERNAL == 7);

CHECK(sizeof(symforge_module_info) == 88);
FIELD(symforge_module_info, format, 4);
FIELD(symforge_module_info, operating_system, 8);
FIELD(symforge_module_info, code_identifier, 48);
FIELD(symforge_module_info, function_count, 56);
FIELD(symforge_module_info, byte_count, 80);

CHECK(sizeof(symforge_frame) == 24);
FIELD(symforge_frame, line, 4);
FIELD(symforge_frame, function, 8);
FIELD(symforge_frame, file, 16);

CHECK(sizeof(symforge_answer) == 48);
FIELD(symforge_answer, found, 4);
FIELD(symforge_answer, frame_count, 8);
FIELD(symforge_answer, first_frame, 16);
FIELD(symforge_answer, function_start, 24);
FIELD(symforge_answer, line_start, 32);
FIELD(symforge_answer, function, 40);

CHECK(sizeof(symforge_frame_data) == 48);
FIELD(symforge_frame_data, type, 4);
FIELD(symforge_frame_data, prolog_size, 8);
FIELD(symforge_frame_data, max_stack_size, 28);
FIELD(symforge_frame_data, text_size, 40);

CHECK(sizeof(symforge_frame_rules) == 16);
FIELD(symforge_frame_rules, text_size, 8);

CHECK(sizeof(symforge_store_options) == 32);
FIELD(symforge_store_options, trees, 8);
FIELD(symforge_store_options, missing_milliseconds, 24);

CHECK(sizeof(symforge_store_info) == 72);
FIELD(symforge_store_info, held_count, 8);
FIELD(symforge_store_info, evict_count, 64);
