#include "counting_allocator.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

std::atomic<bool> g_counting{false};
std::atomic<long> g_heap_calls{0};

void note_call() {
    if (g_counting.load(std::memory_order_relaxed)) {
        g_heap_calls.fetch_add(1, std::memory_order_relaxed);
    }
}

void* counted_alloc(std::size_t n, std::size_t align) {
    note_call();
    if (n == 0) n = 1;
    if (align <= alignof(std::max_align_t)) return std::malloc(n);
    return std::aligned_alloc(align, (n + align - 1) / align * align);
}

}  // namespace

void heap_counting_start() {
    g_heap_calls.store(0, std::memory_order_relaxed);
    g_counting.store(true, std::memory_order_relaxed);
}

long heap_counting_stop() {
    g_counting.store(false, std::memory_order_relaxed);
    return g_heap_calls.load(std::memory_order_relaxed);
}

void* operator new(std::size_t n) {
    if (void* p = counted_alloc(n, 0)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t n) {
    if (void* p = counted_alloc(n, 0)) return p;
    throw std::bad_alloc();
}
void* operator new(std::size_t n, const std::nothrow_t&) noexcept {
    return counted_alloc(n, 0);
}
void* operator new[](std::size_t n, const std::nothrow_t&) noexcept {
    return counted_alloc(n, 0);
}
void* operator new(std::size_t n, std::align_val_t a) {
    if (void* p = counted_alloc(n, static_cast<std::size_t>(a))) return p;
    throw std::bad_alloc();
}
void* operator new(std::size_t n, std::align_val_t a, const std::nothrow_t&) noexcept {
    return counted_alloc(n, static_cast<std::size_t>(a));
}
void operator delete(void* p) noexcept {
    note_call();
    std::free(p);
}
void operator delete[](void* p) noexcept {
    note_call();
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    note_call();
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    note_call();
    std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
    note_call();
    std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
    note_call();
    std::free(p);
}
