// SPDX-License-Identifier: MIT
#pragma once
#include "glue/diner/waiter_event.h"
#include "glue/diner/waiter_ref.h"
#include "util/Mutex.h"
#include "util/api.h"
#include "util/avl_bstree.h"
#include "util/sl_list.h"
#include <cstddef>

class module_man;
class waiter_descriptor;

/// The central data store: a block of memory that diners share, and the registry of who wants to know when which bytes
/// of it change.
namespace CDS {

class Head;
class Lookup_struct;
class Virt_access;
struct Event_node;

/// Kind of a registration; it decides what the data word of the event carries.
enum Reg_type {
    reg_value = 0,        ///< Access_base::reg: the caller's int
    reg_value_direct = 1, ///< Head::event_register: the caller's int
    reg_access = 2,       ///< Access_base::autoreg: the Access_base
    reg_virt_access = 3   ///< Virt_access::autoreg: the Virt_access
};

/// A handle on one byte range of one head. A value; the range must lie in the block. Its calls, and those of
/// Virt_access, are made with the head's lock held; the compiler does not check that, since it knows the head by
/// another name.
class KAV_API Access_base {
public:
    Access_base() = default;
    Access_base(Head* h, int at, int n) : offset(at), length(n), head(h) {}
    void init(Head* h, int at, int n) { *this = Access_base(h, at, n); }
    void init(Access_base other) { *this = other; }

    /// Register `waiter` for changes of the range, with `value` as the event's data; 0, or -1 when the registry's
    /// memory is used up. A second registration means a second event per change. A handle without a head is a bug
    /// report.
    int reg(waiter_descriptor* waiter, int value);
    int unreg(waiter_descriptor* waiter, int value); ///< take one such registration back: 0, or -1 when there is none
    /// The same with the address of this handle as data; the handle stays where it is while registered.
    int autoreg(waiter_descriptor* waiter);
    int autounreg(waiter_descriptor* waiter);

    int offset = 0; ///< [bytes] from the start of the block
    int length = 0; ///< [bytes]
    Head* head = nullptr;
};

/// A handle that an application derives from; events carry the address of the whole object.
class KAV_API Virt_access {
public:
    virtual ~Virt_access();
    int autoreg(waiter_descriptor* waiter);
    int autounreg(waiter_descriptor* waiter);

    Access_base access;
};

/// Options of one signal.
class KAV_API Options {
public:
    /// This waiter gets no event: a writer is not woken by its own change.
    void set_waiter_to_exclude(waiter_descriptor* w) { waiter_to_exclude = w; }

    waiter_descriptor* waiter_to_exclude = nullptr;
};

/// One registration of a range. It lives in the store's own memory space.
struct KAV_INTERNAL Event_recipient : public sll_node {
    bool operator==(const Event_recipient& o) const {
        return waiter.get() == o.waiter.get() && type == o.type && target == o.target;
    }
    static void* operator new(size_t n) noexcept;
    static void operator delete(void* p);

    waiter_ref<waiter_ref_base::range> waiter;
    event_word_t target = 0; ///< an int (through unsigned) or a pointer, by type
    Reg_type type = reg_value;
};

/// Ranges side by side, by offset; none contains another of a different length.
class KAV_INTERNAL Event_list : public c_bstree<avl_bstree, Event_node> {
public:
    Event_list();
    ~Event_list() override; ///< frees its nodes with all that hangs below them
    /// The range with the greatest offset that is not above `offset`, null when there is none: what find() gives for
    /// bst_less_equal, with the offsets compared in place, because every signal begins with it. O(log n)
    Event_node* last_at_or_before(int offset) const;
    static void* operator new(size_t n) noexcept;
    static void operator delete(void* p);
};

/// A registered range with all its registrations, and the ranges nested inside it.
struct KAV_INTERNAL Event_node : public avl_bsnode {
    Event_node(int at, int n) : offset(at), length(n) {}
    Event_node(const Event_node&) = delete;
    /// Frees its registrations and nested ranges. Those of a signal have none.
    ~Event_node() {
        if (children || recipients.size() != 0) release();
    }
    /// This range covers the other, which has a different length.
    bool contains(const Event_node& o) const;
    bool same(const Event_node& o) const { return offset == o.offset && length == o.length; }
    static void* operator new(size_t n) noexcept;
    static void operator delete(void* p);

    int offset;                            ///< [bytes]
    int length;                            ///< [bytes]
    Event_list* children = nullptr;        ///< null until a range is nested; owned
    c_sl_list<Event_recipient> recipients; ///< owned

private:
    void release();
};

/// The changed range of one signal.
struct KAV_INTERNAL Wakeup_node : public Event_node {
    Wakeup_node(int at, int n, const void* now, const void* before, Options* o)
        : Event_node(at, n), new_data(now), old_data(before), options(o) {}
    /// Not excluded by the options.
    bool allowed(const Event_recipient* r) const;
    /// Whether bytes that concern the range differ; without both copies: yes.
    bool changed(const Event_node* n) const;

    const void* new_data; ///< the changed bytes as they are now, or null
    const void* old_data; ///< the same bytes before, or null
    Options* options;     ///< may be null
};

/// The head of a data store: its lock, its registrations, and the lookup tree that is notified of changes.
///
/// None of the operations locks: the caller holds the head's lock while it changes the block. Debug builds report a
/// call without it. Listeners that a signal calls must not lock the head.
///
/// Registered ranges nest or are disjoint; of ranges that overlap partly a signal may miss some, so that
/// registering one says so on the debug output. Memory for
/// registrations is 24,576 bytes for all heads of the process. A range stays known when its last registration has gone.
class KAV_API Head : public Mutex {
public:
    /// `modules` (may be null: module ids 0) supplies three extended module ids and outlives the head. `word` is kept
    /// for the application.
    Head(module_man* modules, unsigned long word);
    ~Head();

    /// The root that signal_update() of a signal goes to; null: none. Not owned.
    void set_lookup(Lookup_struct* root) { lookup = root; }
    unsigned long get_word() const { return _word; }

    /// Register a range: 0, or -1 when memory is used up, or when the range has a negative offset or length or ends
    /// behind the block, whose size the lookup tree knows once set_lookup() was called (nothing is registered then, and
    /// a line says why). A waiter that dies while registered is deregistered, which a line tells. O(depth * log n)
    int event_register(waiter_descriptor* waiter, int offset, int length, Reg_type type, int value, Access_base* access,
                       Virt_access* virt) KAV_REQUIRES(this);
    /// Take one registration back that is equal in everything: 0, or -1 when there is none.
    int event_unregister(waiter_descriptor* waiter, int offset, int length, Reg_type type, int value,
                         Access_base* access, Virt_access* virt) KAV_REQUIRES(this);
    /// Notify everybody concerned that `length` bytes at `offset` changed: the ranges that contain them, outermost
    /// first, then the equal one or those inside. `new_data` must be the live block at that offset, `old_data` a copy
    /// of the bytes before. With both, only ranges whose bytes differ are woken, and the lookup tree is notified. With
    /// either null all are woken. 0. Allocates nothing.
    int event_signal(const void* new_data, const void* old_data, int offset, int length, Options* options)
        KAV_REQUIRES(this);

    /// Whether an event is one of this head's, of the given kind.
    bool is_event(const waiter_event& e, Reg_type type) const;

    /// By offset.
    static int compare(const Event_node* a, const Event_node* b) {
        return (a->offset > b->offset) - (a->offset < b->offset);
    }

    // The steps of the above, from a list or a range on; for whoever keeps ranges of his own.

    /// Takes the key's registration over, unless -1
    int cds_event_register_body(Event_list* list, Event_node& key) KAV_REQUIRES(this);
    int signal_body(Event_list* list, const Wakeup_node& w) KAV_REQUIRES(this);
    void wake(Event_node* n, const Wakeup_node& w) KAV_REQUIRES(this);         ///< the waiters of one range
    void wake_descend(Event_node* n, const Wakeup_node& w) KAV_REQUIRES(this); ///< and of all that is nested in it

private:
    short module_of(Reg_type type) const;
    bool lies_in_block(int offset, int length) const;

    Event_list _events KAV_GUARDED_BY(this);
    short _module_value = 0;
    short _module_access = 0;
    short _module_virt = 0;
    unsigned long _word;
    Lookup_struct* lookup = nullptr;
};

} // namespace CDS
