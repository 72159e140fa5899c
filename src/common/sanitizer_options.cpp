// Linked only into sanitizer builds.  The program reports a failed
// allocation and goes on; the sanitizers' allocators would instead end the
// process on an impossible request.  Letting them return null, as malloc
// does, keeps the checked builds behaving like the shipped one.

extern "C" {
__attribute__((used)) const char *__asan_default_options() { return "allocator_may_return_null=1"; }
__attribute__((used)) const char *__tsan_default_options() { return "allocator_may_return_null=1"; }
}
