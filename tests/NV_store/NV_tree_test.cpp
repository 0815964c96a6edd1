// SPDX-License-Identifier: MIT
#include "NV_store/Settings_fixture.h"
#include "glue/NV_store/NV_text.h"
#include "glue/cds/CDS_remote.h"
#include "support/test.h"
#include <cmath>

using namespace NV_store;

namespace {

struct Tree : testing::Test {
    std::string told() { return inbox.targets(); }
    module_man modules;
    Inbox inbox{modules};
    waiter_descriptor& waiter = inbox.waiter;
    Settings tree{&modules};
    NV_int16& offset = tree.wheel.offset;
};

TEST_F(Tree, Finds_items_by_path_and_identifier) {
    // A last component may be longer than one that something follows.
    const std::string long_name(300, 'x'), cut_name = long_name.substr(44);
    NV_uint8 cut(&tree, 98, cut_name.c_str()), whole(&tree, 99, long_name.c_str());
    const std::vector<std::string> nowhere = {
        "sections/3",     "sections/-1", "sections/4294967296", "sections/width", "wheel/", "speed/x", "",
        "wheel,x/offset", "whee",        long_name + "/",       cut_name + ","};
    const std::pair<NV_item*, std::vector<std::string>> table[] = {
        {&tree.speed, {"speed"}},      {&offset, {"wheel/offset"}},
        {&tree.wheel, {"wheel,rest"}}, {&tree.sections.right, {"sections/2", "sections/2abc"}},
        {&whole, {long_name}},         {nullptr, nowhere}};
    for (const auto& [item, paths] : table)
        for (const std::string& path : paths) EXPECT_EQ(tree.find_data_item(path.c_str()), item) << path;
    EXPECT_EQ(tree.find_data_item(offset.get_data_id()), &offset);
}

TEST_F(Tree, Duplicate_identifiers_and_wild_positions_end_the_process) {
    const Child_result child = run_child([this] { NV_uint8(&tree.wheel, 1, "again"); });
    EXPECT_EQ(child.end(), "137 Duplicate NV_store ID again:1 fitted:1 in wheel\n");
    const std::string index = run_child([this] { tree.sections[3]; }).err;
    EXPECT_NE(index.find("glue/NV_store/NV_container:1:"), std::string::npos);
    EXPECT_NE(index.find("Assertion `ret != __null' failed"), std::string::npos);
}

TEST_F(Tree, Items_may_outlive_what_they_are_in) {
    int order[] = {0, 1, 2, 3};
    do {
        auto* const outer = new NV_container(new NV_root(nullptr, 1, "root"), nullptr, 1, "outer");
        auto* const inner = new NV_container(outer, nullptr, 1, "inner");
        auto* const pointer = new NV_pointer(inner, 1, "pointer");
        ASSERT_TRUE(pointer->set(outer));
        NV_item* all[] = {outer->get_root(), outer, inner, pointer};
        for (const int next : order) {
            delete std::exchange(all[next], nullptr);
            NV_item* root = all[0]; // of an item whose containers all live
            for (int i = 1; i < 4; root = all[i++] ? root : nullptr)
                EXPECT_TRUE(!all[i] || (all[i]->get_root() == root && all[i]->notify_updated(true, notify_all))) << i;
            EXPECT_TRUE(!all[3] || pointer->get() == (pointer->get_root() ? outer : nullptr));
        }
    } while (std::next_permutation(std::begin(order), std::end(order)));
}

TEST_F(Tree, A_branch_moves_with_everything_below) {
    Settings other(nullptr);
    NV_container branch(40, "branch"), below(&branch, nullptr, 3, "below");
    NV_pointer item(&below, 2, "item");
    item.notify_updated(true, notify_all);
    tree.wheel.add_child(&branch);
    EXPECT_NE(tree.image(NV_iterator::mode_journal_1), "") << "what was changed before it came is to be saved";
    EXPECT_VALUES("true true", tree.active.set(&item), item.set(&tree.speed));
    tree.remove_child(&branch); // no child of this one
    EXPECT_VALUES(texts(&tree.wheel, "wheel/branch/below/item"), branch.get_parent(), text_form(tree.active));
    tree.wheel.remove_child(&branch);
    EXPECT_VALUES("null null null null", branch.get_parent(), below.get_root(), tree.active.get(), item.get());
    other.add_child(&branch);
    EXPECT_VALUES("true false", item.set(&other.speed), other.image(NV_iterator::mode_journal_1).empty());
    EXPECT_EQ(NV_container(nullptr, &tree, 50, "").get_module_id(reg_item), 0) << "the parent knows it";
    for (int kind = num_reg_types; kind < 256; ++kind) ASSERT_EQ(tree.get_module_id(Reg_type(kind)), 0) << kind;
}

TEST_F(Tree, A_pointer_takes_only_what_a_stored_path_finds_again) {
    std::deque<NV_container> levels;
    NV_container* at = &tree;
    for (int i = 0; i < 17; ++i) at = &levels.emplace_back(at, nullptr, 90, "level");
    Settings other(nullptr);
    const std::pair<NV_item*, bool> table[] = {
        {&offset, true},      {&levels[15], true},  {&tree.sections.left, true}, {&tree.sections.middle, false},
        {&levels[16], false}, {&other.speed, false}};
    for (const auto& [target, taken] : table) {
        tree.active.set(nullptr);
        EXPECT_EQ(tree.active.set(target), taken) << target->get_name();
        const std::string image = tree.image(NV_iterator::mode_write);
        tree.active.set(nullptr);
        EXPECT_VALUES(texts(true, taken ? target : nullptr), tree.load(image), tree.active.get()) << target->get_name();
    }
    EXPECT_EQ(tree.active._from_string("sections/2"), nullptr);
}

TEST_F(Tree, Text_form_is_read_back_and_cut_to_its_buffer) {
    // Blanks before a pointer's name belong to the name, and only a word has a rest.
    const std::string whole = "{2.5,{false,7},{1,2,3},wheel/offset}";
    EXPECT_TRUE(tree._from_string(whole.c_str()));
    for (int size = 1; size < 40; ++size) {
        const auto exact = std::make_unique<char[]>(static_cast<size_t>(size));
        const int n = tree._to_string(exact.get(), size);
        const std::string got = exact.get();
        const bool as_it_should = size == 2 ? got == "{" : size < 37 || got == whole;
        EXPECT_VALUES(texts(got.size(), true, true), n, n < size, as_it_should) << got;
    }
    EXPECT_TRUE(tree._from_string(" \t{0 ,{T\t,1} ,{1 ,2,3 },}"));
    EXPECT_EQ(tree.text(), "{0,{true,1},{1,2,3},}");
    for (const char* bad :
         {"\t {0 , {T\t,1} ,{ 1 ,2,3 }, } ", "{1,{true,2},{1,2},}", "{1 {true,2},{1,2,3},}", "{1,{?,2},{1,2,3},}",
          "{1,{1xyz,2},{1,2,3},}", "{1,{true,2},{1,2,3},nowhere}", "1", "{1,{true,2},{1,2,3},"})
        EXPECT_EQ(tree._from_string(bad), nullptr) << bad;
}

TEST_F(Tree, Waiters_are_told_by_kind) {
    NV_item& item = offset;
    Access_base access(&item);
    Virt_access virt;
    virt.access.init(&item);
    item.register_waiter(&waiter, 77, false);
    item.autoreg_waiter(&waiter, false);
    access.register_waiter(&waiter, false);
    virt.autoreg(&waiter, false);
    offset.set(5);
    const void* const targets[] = {reinterpret_cast<void*>(77), &item, &access, &virt};
    for (int i = 0; i < 4; ++i) {
        waiter_event e;
        EXPECT_EQ(waiter.get_event(&e, Atime(false)), 0);
        EXPECT_VALUES(texts(item.get_module_id(static_cast<Reg_type>(i + 1)), targets[i], i == 1), e.module_id,
                      reinterpret_cast<void*>(e.data), item.is_event(e));
    }
    EXPECT_VALUES("true true true true false", item.unregister_waiter(&waiter, 77, false),
                  item.autounreg_waiter(&waiter, false), access.unregister_waiter(&waiter, false),
                  virt.autounreg(&waiter, false), item.unregister_waiter(&waiter, 77, false));
    offset.set(6);
    EXPECT_EQ(told(), "");
    Capture err(stderr);
    EXPECT_VALUES("false NULL ROOT\r\n", NV_uint8(nullptr, 1, "loose").is_event(waiter_event(0, 0, 0)), err.text());
}

TEST_F(Tree, A_change_marks_the_item_and_all_above_it_and_tells_their_waiters) {
    tree.register_waiter(&waiter, 1, false);
    tree.wheel.register_waiter(&waiter, 2, true); // only of what is forced
    offset.register_waiter(&waiter, 3, false);
    std::string signalled;
    for (NV_item* i : std::initializer_list<NV_item*>{&tree, &tree.active, &offset})
        QObject::connect(i, &NV_item::value_changed, [&](NV_item* who) { signalled += who->get_name(); });
    EXPECT_GE(tree.metaObject()->indexOfSignal("value_changed(NV_item*)"), 0);
    const std::tuple<notify_t, const char*, const char*, const char*> table[] = {
        {notify_none, "", "", "4 4 4 4"},
        {notify_parents, "", "machineoffsetmachineactive", "3 3 3 3"},
        {notify_waiters, "3", "offsetactive", "3 3 3 3"},
        {notify_all, "311", "machineoffsetmachineactive", "3 3 3 3"}};
    for (const auto& [how, woken, heard, flags] : table) {
        EXPECT_TRUE(offset._set(static_cast<short>(how + 5), how));
        EXPECT_TRUE(tree.active._set(how % 2 ? nullptr : &tree.speed, how));
        EXPECT_VALUES(texts(woken, heard, flags), told(), std::exchange(signalled, ""), tree.get_flags(),
                      tree.wheel.get_flags(), offset.get_flags(), tree.active.get_flags())
            << how;
        EXPECT_VALUES("true ", offset.set(offset.get()), told()) << "the same value";
    }
    EXPECT_VALUES("true 321", tree.signal_all(&tree), told()) << "children before their container";
    EXPECT_EQ(tree.wheel.fitted.get_flags(), NV_item::not_loaded) << "nothing became changed";
}

TEST_F(Tree, Registrations_take_the_lock_unless_the_caller_holds_it) {
    tree.wheel.lock();
    tree.wheel.register_waiter(&waiter, 1, false);
    EXPECT_VALUES("true true", tree.is_locked(), offset.set(9));
    tree.wheel.unlock();
    std::thread other([&] {
        for (int i = 0; i < 200; ++i) {
            tree.wheel.register_waiter(&waiter, 5, false);
            tree.wheel.unregister_waiter(&waiter, 5, false);
        }
    });
    for (int i = 0; i < 200; ++i) tree.signal_all(&tree), offset.set(static_cast<short>(i));
    other.join();
    EXPECT_TRUE(tree.wheel.unregister_waiter(&waiter, 1, false));
    // Where nobody is registered, a long save stops no setter.
    std::atomic<bool> set{false};
    tree.lock();
    std::thread setter([&] { set = offset.set(-9); });
    EXPECT_TRUE(wait_until([&] { return set.load(); }));
    tree.unlock();
    setter.join();
}

TEST_F(Tree, Remote_format_shows_names_as_the_parent_does_and_values_are_read_back) {
    const std::string long_name(400, 'n');
    NV_uint8 item(nullptr, 60, long_name.c_str());
    char bytes[512];
    CDS::Remote::Send_buffer cut(bytes, 0, sizeof bytes), out(bytes, 0, sizeof bytes), values(bytes, 0, sizeof bytes);
    item.serialise_structure(cut, 0);
    EXPECT_EQ(cut.position - bytes, 255);
    tree.sections.serialise_structure(out, 255);
    const unsigned id = tree.sections.get_data_id(); // and those of what is in it follow
    EXPECT_EQ(std::string(bytes, out.position),
              text_of("d:%x:sections{5:%x:0,5:%x:1,5:%x:2}", id, id + 1, id + 2, id + 3));

    tree.set_all();
    unsigned short start = 0;
    ASSERT_TRUE(tree.serialise(values, start).ok());
    tree._from_string("{0,{true,1},{1,2,3},}");
    tree.register_waiter(&waiter, 1, false);
    CDS::Remote::Receive_buffer in(bytes, static_cast<int>(values.position - bytes)), short_one(bytes, 5);
    ASSERT_TRUE(tree.deserialise(in, start).ok());
    EXPECT_VALUES("{2.5,{false,7},{10,20,30},wheel/offset} 1111111", tree.text(), told());
    const auto result = tree.deserialise(short_one, start);
    EXPECT_VALUES(texts(offset.get_data_id(), tree.sections.get_data_id()), result.stop(), result.next());
}

/// Values at their ends, and names that a path cannot hold.
struct Odd : NV_root {
    Odd() : NV_root(nullptr, 1, "odd") {}
    NV_char c{this, 1, "c", '\xE4'};
    NV_uint64 empty{this, 2, "", ULLONG_MAX}, slash{this, 3, "a/b"}, equals{this, 4, "="}, hash{this, 5, "#1"};
    NV_int64 bracket{this, 6, "[6]", LLONG_MIN}, good{this, 7, "a b", LLONG_MAX};
    NV_float f{this, 8, "f", 0.1f};
    NV_double d{this, 9, "twin", -HUGE_VAL};
    NV_bool b{this, 10, "twin", true};
    NV_pointer to_twin{this, 11, "to twin"}, none{this, 12, "line\n"};
    struct : NV_int8 { // says that it is what it is not
        using NV_int8::NV_int8;
        item_type_t get_type() const override { return item_double; }
    } own{this, 13, "own"};
};

TEST(NV_text, names_each_setting_by_a_path_of_its_own_and_reads_back_what_it_wrote) {
    Odd a, b;
    a.to_twin.set(&a.b);
    EXPECT_EQ(export_text(a), "c=228\n[1]=18446744073709551615\n[2]=0\n[3]=0\n[4]=0\n[5]=-9223372036854775808\n"
                              "a b=9223372036854775807\nf=0.1\n[8]=-inf\n[9]=true\nto twin=[9]\n[11]=\n"
                              "# own has no text form\n");
    for (const double v : {double(NAN), 0.1 + 0.2, 1 / 3.0, 5e-324}) {
        a.d.set(v), a.f.set(static_cast<float>(v));
        EXPECT_VALUES(" " + export_text(a), import_text(b, export_text(a)).error, export_text(b));
        EXPECT_TRUE(v != v || (b.f.get() == a.f.get() && b.d.get() == v)) << v;
    }
}

TEST(NV_text, takes_what_a_hand_may_have_written) {
    Settings tree(nullptr);
    int told = 0;
    QObject::connect(&tree.wheel.offset, &NV_item::value_changed, [&] { told += tree.is_locked(); });
    const Import_result r =
        import_text(tree, "# a comment\r\n\r\n  wheel/offset =\t-0 \r\nwheel/fitted=no\n\nspeed=1e1\n"
                          "sections/1=0xfF\nactive=sections/0");
    EXPECT_VALUES(" 5 1 speed=10\nwheel/fitted=false\nwheel/offset=0\nsections/0=0\nsections/1=255\nsections/2=0\n"
                  "active=sections/0\n",
                  r.error, r.values, told, export_text(tree));
}

TEST(NV_text, a_refused_text_changes_nothing_and_says_why) {
    const std::pair<const char*, const char*> table[] = {
        {"wheel/offset", "no '=' in \"wheel/offset\""},
        {"wheel/size=1", "wheel/size: there is no such setting"},
        {"wheel=1", "wheel: is no setting but a container"},
        {"speed=2", "speed: was set in line 1 already"},
        {"wheel/offset=32768", "wheel/offset: \"32768\" is no number from -32768 to 32767"},
        {"wheel/fitted=truly", "wheel/fitted: \"truly\" is neither true nor false"},
        {"active=wheel/none\a", "active: there is nothing at \"wheel/none?\""},
        {"active=sections/1", "active: cannot point at \"sections/1\""},
        {"active=/", "active: cannot point at \"/\""}};
    Settings tree(nullptr);
    for (const auto& [line, error] : table) {
        const Import_result r = import_text(tree, std::string("speed=5\nsections/2=9\n\n") + line);
        EXPECT_VALUES(std::string("0 line 4: ") + error, r.values, r.error);
    }
    for (const std::string value : {"1e39", "0.5f", "infinity", "nan(1)", "1,5", "+1", "0x1p3"})
        EXPECT_EQ(import_text(tree, "speed=" + value).error, "line 1: speed: \"" + value + "\" is no number that fits");
    EXPECT_LT(import_text(tree, "speed=" + std::string(1000, '9')).error.size(), 120u);
    EXPECT_EQ(tree.text(), Settings(nullptr).text());
    Odd odd;
    EXPECT_EQ(import_text(odd, "own=1").error, "line 1: own: has a type without a text form");
}

} // namespace
