#include "Allocations.hpp"

#include <atomic>
#include <cstdlib>
#include <new>

namespace spf_bench {
namespace {

std::atomic<std::uint64_t> allocations{0};

void* allocate(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* block = std::malloc(size != 0 ? size : 1)) {
        return block;
    }
    throw std::bad_alloc();
}

void* allocate(std::size_t size, std::align_val_t alignment) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    const auto align = static_cast<std::size_t>(alignment);
    const std::size_t rounded = (size + align - 1) / align * align;
    if (void* block = std::aligned_alloc(align, rounded != 0 ? rounded : align)) {
        return block;
    }
    throw std::bad_alloc();
}

}  // namespace

std::uint64_t allocationCount() noexcept {
    return allocations.load(std::memory_order_relaxed);
}

}  // namespace spf_bench

void* operator new(std::size_t size) {
    return spf_bench::allocate(size);
}
void* operator new[](std::size_t size) {
    return spf_bench::allocate(size);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
    return spf_bench::allocate(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
    return spf_bench::allocate(size, alignment);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return spf_bench::allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return spf_bench::allocate(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
    std::free(block);
}
