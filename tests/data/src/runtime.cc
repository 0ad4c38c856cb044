// What the compiler expects of a run time that the fixtures do not have. They are never run.
extern "C" {
int _fltused = 1;
void* memset(void* to, int value, decltype(sizeof 0) size) {
  for (char* at = static_cast<char*>(to); size != 0; --size) *at++ = static_cast<char>(value);
  return to;
}
void* memcpy(void* to, const void* from, decltype(sizeof 0) size) {
  const char* source = static_cast<const char*>(from);
  for (char* at = static_cast<char*>(to); size != 0; --size) *at++ = *source++;
  return to;
}
}
// Known to the debugger by its public symbol alone.
#define FUNCTION(name) ".def " name "; .scl 2; .type 32; .endef\n.globl " name "\n" name ":\n"
#if defined(__i386__)
__asm__(FUNCTION("__chkstk") FUNCTION("__alloca") "  retl\n");
#else
__asm__(FUNCTION("__chkstk") "  retq\n");
#endif
