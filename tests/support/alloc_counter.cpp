// Under AddressSanitizer the allocator's own hooks report every allocation; under
// ThreadSanitizer, whose runtime owns the allocator, nothing is interposed or hooked and
// allocations are not observed; otherwise malloc and its relatives are interposed and
// forwarded to the C library's allocator.
#include "support/alloc_counter.hpp"

#include <atomic>
#include <cstddef>

namespace {
std::atomic<bool> g_armed{false};
std::atomic<std::uint64_t> g_count{0};

[[maybe_unused]] void note() {
    if (g_armed.load(std::memory_order_relaxed)) g_count.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

#if defined(IPCLIENT_TSAN)
bool ipt::allocations_observable() { return false; }
#elif defined(IPCLIENT_SANITIZE)
// Provided by the sanitizer runtime (declared here: the compiler ships no header for it).
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*malloc_hook)(const volatile void*, std::size_t),
                                                          void (*free_hook)(const volatile void*));

namespace {
void on_malloc(const volatile void*, std::size_t) { note(); }
void on_free(const volatile void*) {}
const int g_installed = __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free);
}  // namespace

bool ipt::allocations_observable() { return g_installed != 0; }
#else
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);

void* malloc(std::size_t n) {
    note();
    return __libc_malloc(n);
}
void* calloc(std::size_t a, std::size_t b) {
    note();
    return __libc_calloc(a, b);
}
void* realloc(void* p, std::size_t n) {
    note();
    return __libc_realloc(p, n);
}
void* memalign(std::size_t a, std::size_t n) {
    note();
    return __libc_memalign(a, n);
}
}

bool ipt::allocations_observable() { return true; }
#endif

namespace ipt {

AllocationScope::AllocationScope() : start_(g_count.load()) { g_armed = true; }
AllocationScope::~AllocationScope() { g_armed = false; }
std::uint64_t AllocationScope::count() const { return g_count.load() - start_; }

}  // namespace ipt
