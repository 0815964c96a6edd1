// SPDX-License-Identifier: MIT
#include "util/Mspace.h"
#include "util/Debug_base.h"
#include "util/Debug_print.h"
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <utility>

// The allocator's own interface. The C library's malloc.h declares another struct mallinfo, so it must not be included.
extern "C" {
struct mallinfo {
    size_t arena, ordblks, smblks, hblks, hblkhd, usmblks, fsmblks, uordblks, fordblks, keepcost;
};
void* create_mspace_with_base(void* base, size_t capacity, int locked);
size_t destroy_mspace(void* space);
void* mspace_malloc(void* space, size_t n);
void mspace_free(void* space, void* p);
void* mspace_realloc(void* space, void* p, size_t n);
struct mallinfo mspace_mallinfo(void* space);
}

Mspace::Mspace(void* base, unsigned int size, const char* name)
    : _heap(create_mspace_with_base(base, size, 1))
    , _base(base)
    , _size(size)
    , _name(name)
    , _manager(&Mspace_manager::get()) {
    _manager->add(this);
}

Mspace::~Mspace() {
    void* const heap = _heap;
    _heap = nullptr;
    _size = 0;
    if (heap) destroy_mspace(heap);
}

void* Mspace::malloc(unsigned int n) const {
    void* const p = _heap ? mspace_malloc(_heap, n) : nullptr;
    if (!p && Debug_filter::_enabled(_JDB::jdb_mspace))
        Debug_print::dprint("Failed to allocate %d bytes in %s allocator\n", static_cast<int>(n), _name);
    return p;
}

void Mspace::free(void* p) const {
    if (_heap && p) mspace_free(_heap, p);
}

void* Mspace::realloc(void* p, unsigned int n) const { return _heap ? mspace_realloc(_heap, p, n) : nullptr; }

void Mspace::print_usage(Debug::Dumper& dumper) const {
    if (!_heap) return;
    const struct mallinfo info = mspace_mallinfo(_heap); // before the dumper, which may allocate here
    if (!dumper.start(_name)) return;
    const std::initializer_list<std::pair<const char*, size_t>> fields = {
        {"fixed_space", info.arena},    {"free_chunks", info.ordblks}, {"max_alloc", info.usmblks},
        {"total_alloc", info.uordblks}, {"total_free", info.fordblks}, {"releasable", info.keepcost}};
    for (const auto& [key, value] : fields) {
        char text[16];
        snprintf(text, sizeof text, "%x", static_cast<unsigned>(value));
        dumper.field(key, text);
    }
    dumper.end(_name);
}

Mspace_manager& Mspace_manager::get() {
    // Never destroyed: spaces may be statics that die later.
    static Mspace_manager& manager = *new Mspace_manager;
    return manager;
}

void Mspace_manager::add(Mspace* space) {
    if (space) _spaces.push(space);
}

void Mspace_manager::print_usage(Debug::Dumper& dumper) const {
    for (const Mspace& space : _spaces) space.print_usage(dumper);
}

void Mspace_manager::print_global_usage(Debug::Dumper& dumper) { get().print_usage(dumper); }
