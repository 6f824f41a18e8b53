// Linked into the server of a coverage build, with --wrap: a process that ends by _exit writes its
// counters too.
extern "C" {

int __llvm_profile_write_file();
[[noreturn]] void __real__exit(int status);

[[noreturn]] void __wrap__exit(int status) {
  __llvm_profile_write_file();
  __real__exit(status);
}

[[noreturn]] void __wrap__Exit(int status) { __wrap__exit(status); }
}
