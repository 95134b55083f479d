// Under AddressSanitizer the allocator's own hooks report every allocation; under
// ThreadSanitizer, whose runtime owns the allocator, nothing is interposed or hooked and
// allocations are not observed; otherwise malloc and its relatives are interposed and
// forwarded to the C library's allocator.
#include "support/alloc_counter.hpp"

#include <atomic>
#include <cstddef>
#include <cstdlib>

namespace {
std::atomic<bool> g_armed{false};
std::atomic<std::uint64_t> g_count{0};

[[maybe_unused]] void note() {
    if (g_armed.load(std::memory_order_relaxed)) g_count.fetch_add(1, std::memory_order_relaxed);
}

constexpr int kWatchSlots = 8;
std::atomic<const volatile void*> g_watched[kWatchSlots];
std::atomic<bool> g_watched_freed[kWatchSlots];

[[maybe_unused]] void note_free(const volatile void* block) {
    if (block == nullptr) return;
    for (int i = 0; i < kWatchSlots; ++i) {
        if (g_watched[i].load(std::memory_order_relaxed) == block) g_watched_freed[i].store(true);
    }
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
void on_free(const volatile void* block) { note_free(block); }
const int g_installed = __sanitizer_install_malloc_and_free_hooks(on_malloc, on_free);
}  // namespace

bool ipt::allocations_observable() { return g_installed != 0; }
#else
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

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
    void* moved = __libc_realloc(p, n);
    if (moved != p && (moved != nullptr || n == 0)) note_free(p);
    return moved;
}
void free(void* p) {
    note_free(p);
    __libc_free(p);
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

FreeWatch::FreeWatch(const void* block) : slot_(-1) {
    for (int i = 0; i < kWatchSlots; ++i) {
        const volatile void* empty = nullptr;
        if (g_watched[i].compare_exchange_strong(empty, block)) {
            g_watched_freed[i].store(false);
            slot_ = i;
            return;
        }
    }
    std::abort();  // more watches open than there are slots: a mistake in the test
}
FreeWatch::~FreeWatch() {
    if (slot_ >= 0) g_watched[slot_].store(nullptr);
}
bool FreeWatch::freed() const { return slot_ >= 0 && g_watched_freed[slot_].load(); }

}  // namespace ipt
