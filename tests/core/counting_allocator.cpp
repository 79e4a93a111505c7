#include "counting_allocator.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_calls{0};

void count() {
    if (g_counting.load(std::memory_order_relaxed)) g_calls.fetch_add(1);
}

}  // namespace

void heap_counting_start() {
    g_calls = 0;
    g_counting = true;
}

long heap_counting_stop() {
    g_counting = false;
    return g_calls.load();
}

#if defined(__SANITIZE_ADDRESS__)
#define VT_HEAP_HOOKS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VT_HEAP_HOOKS 1
#endif
#endif

#ifdef VT_HEAP_HOOKS
// The sanitizer owns the allocator: watch every malloc and free through it.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*on_malloc)(const volatile void*,
                                                                           std::size_t),
                                                         void (*on_free)(const volatile void*));

namespace {
const int g_hooked = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, std::size_t) { count(); }, [](const volatile void*) { count(); });
}  // namespace
#else
// The library's array, nothrow and aligned-free forms end in these.
void* operator new(std::size_t n) {
    count();
    if (void* p = std::malloc(n == 0 ? 1 : n)) return p;
    throw std::bad_alloc();
}

void operator delete(void* p) noexcept {
    count();
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept {
    operator delete(p);
}
#endif
