/* A library that comes and goes: its frames stand on the stack while it is loaded. */
__attribute__((visibility("default"))) int plugin_call(int (*function)(void)) {
  return function() + 1;
}
