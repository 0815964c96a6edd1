// SPDX-License-Identifier: MIT
#pragma once
#include "util/api.h"
#include <atomic>
#include <cstdint>

/// The text of an error number of the receiver, 1 to 41, as it follows in a reply: with a leading comma. Null for any
/// other number.
KAV_API const char* errcode2str(int code);

/// Turns the error text of a refused command into its number. All members are static; any thread.
class KAV_API Vorn_error_decoder {
public:
    static constexpr int num_errors = 41;

    /// A text, without the comma, and its number. The text is not owned.
    struct KAV_API Item {
        constexpr Item() = default;
        constexpr Item(const char* t, int32_t c) : text(t), code(c) {}
        bool operator<(const Item& b) const;
        bool operator>(const Item& b) const;

        const char* text = nullptr;
        int32_t code = 0;
    };

    /// Items in the order of their texts.
    struct KAV_API Table {
        /// False when it is full. Behind the items of the same text, if there are any. Linear.
        bool insert(const Item& item);
        /// The number of a text, -1 when it is not there. Logarithmic.
        int32_t find(const char* text) const;

        Item items[num_errors];
        int count = 0;
    };

    /// Fill `lookup`. Done by the first get(); a further call changes nothing.
    static void init();
    /// The number of a text, without the comma; -1 when there is none.
    static int get(const char* text);
    /// The number of the last comma-separated field of a reply, which a "}" or the reply's end closes; -1 when there is
    /// none.
    static int extract(const char* reply);
    /// The same for a reply of `len` [bytes], or up to its zero. A reply as it comes from the line ends in CR LF, which
    /// no error text does: Vorn_response::strip_identifier gives text and length without.
    static int extract(const char* reply, int len);

    static Table lookup;
    static std::atomic<bool> init_done;
};
