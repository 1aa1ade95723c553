// rep_records_test.cpp - which bytes of each record the conversions move.
#include "internal/rep_convert.h"
#include "koutil/rep_records.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

namespace
{

using Bytes = std::vector<unsigned char>;
using Swap = void (*)(void *);

template <auto function>
struct Adapter;
template <typename Record, void (*function)(Record *)>
struct Adapter<function> {
    static void call(void *record) { function(static_cast<Record *>(record)); }
};

template <int targets>
void swap_state(void *record)
{
    swap_rep_state(static_cast<rep_src_state_t *>(record), targets);
}

// What a conversion does to a record, from its first byte to its last: a number is that many bytes
// reversed, "=n" is n bytes that stay, "n*m" is m times n.
struct Case {
    const char *name;
    Swap swap;
    std::string pattern;
};

Bytes patterned(size_t size)
{
    Bytes bytes(size);
    for (size_t i = 0; i < size; i++) {
        bytes[i] = static_cast<unsigned char>(i * 167 + i / 256 + 1);
    }
    return bytes;
}

// The patterned record after a conversion that follows the pattern.
Bytes converted(const std::string &pattern)
{
    Bytes bytes;
    std::istringstream words(pattern);
    for (std::string word; words >> word;) {
        const bool stays = word[0] == '=';
        const size_t star = word.find('*');
        const int run = std::stoi(word.substr(stays));
        for (int times = star == std::string::npos ? 1 : std::stoi(word.substr(star + 1));
             times > 0; times--) {
            const Bytes longer = patterned(bytes.size() + static_cast<size_t>(run));
            bytes.insert(bytes.end(), longer.end() - run, longer.end());
            if (!stays) {
                std::reverse(bytes.end() - run, bytes.end());
            }
        }
    }
    return bytes;
}

#define CASE(function) #function, Adapter < function> ::call

std::string source_state(int targets)
{
    std::string pattern = "4 4 8 4 4 4 =4 8 4 4 4 4 =8";
    for (int i = 0; i < targets; i++) {
        pattern += " =768 2 2 4 2 2 4*4 4 4 =4 8 8 4 4 8*4";
    }
    return pattern + " =864";
}

const Case cases[] = {
    {CASE(swap_rep_header), "4 2 2 8 8 8"},
    {CASE(swap_rep_cmd), "4 2 2 =5"},
    {CASE(swap_rep_file), "4 2 2 4 2 =2 4*4 8 8 4 4 8 4*6 8 =9"},
    {CASE(swap_rep_ns_file), "4 2 2 8*3 4*4 =9"},
    {CASE(swap_rep_blob), "8*3 =16"},
    {CASE(swap_rep_sd_mapping), "4 2 =2 8 4 =4"},
    {CASE(swap_rep_reply), "4*3 =4 8*3 4 4"},
    {CASE(swap_tmspec), "4 4"},
    {CASE(swap_rep_delta), "4 =4 8"},
    {CASE(swap_rep_miss), "8 4 4 =9"},
    {CASE(swap_pol_query), "8 8"},
    {CASE(swap_pol_cmd), "8 =8 8 4 2 2 8 8"},
    {CASE(swap_tgt_query), "8 4 4 =256"},
    {CASE(swap_rep_copy_cmd), "8 8 4 =9"},
    {CASE(swap_pending_info), "8 8 4 4 8 8 4 4 =265"},
    {CASE(swap_progress_info), "8 8 4*4 8 8 4 4 =256"
                               " 4 4 8 4*3 =4 8  4 4 8 4*3 =4 8  4 4 8 4*3 =4 8  4 4 8 4*3 =4 8"
                               " 4 4 8 4*3 =4 8  4 4 8 4*3 =4 8  4 4 8 4*3 =4 8"
                               " 8 4*4 8 4 =4"},
    {CASE(swap_pol_summary), "8 8 4*4 =41"},
    {CASE(swap_pol_info), "8 8 4*6 8*4 4 =4 8 4 =4 8 4 =4 8 4 =4 8 4 =4 8 4 =4 8 4 =4 8 8*5 =9"},
    {CASE(swap_fs_state), "8 2 2 =4 8 8 =73"},
    {CASE(swap_bfst_stats), "8*8"},
    {CASE(swap_target_state), "4 4 8*4 =2560"},
    {CASE(swap_rep_stats), "8 4*4 =8"},
    {"swap_rep_state of 2", swap_state<2>, source_state(2)},
    {"swap_rep_state of 0", swap_state<0>, source_state(0)},
    {"swap_rep_state of -1", swap_state<-1>, source_state(0)},
};

} // namespace

TEST(Records, ConversionsMoveTheBytesOfTheNumbersAndNoOthers)
{
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes expected = converted(c.pattern), before = patterned(expected.size());
        for (size_t shift : {0, 1, 4}) { // records in a stream's buffer are not aligned
            Bytes memory(shift);
            memory.insert(memory.end(), before.begin(), before.end());
            c.swap(memory.data() + shift);
            EXPECT_EQ(Bytes(memory.begin() + static_cast<long>(shift), memory.end()), expected);
            c.swap(memory.data() + shift);
            EXPECT_EQ(Bytes(memory.begin() + static_cast<long>(shift), memory.end()), before);
        }
    }
}
