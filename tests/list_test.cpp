// Lists: order and links against a plain model, walks under change, and misuse.
#include "common/list.h"

#include "support/support.h"

#include <algorithm>
#include <deque>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace
{

struct Item {
    Link_t link;
    int id;
};

std::vector<int> ids(const ListHdr_t &list)
{
    std::vector<int> found;
    const Link_t *prev = nullptr;
    for (const Link_t *node = list.h_first; node; prev = node, node = node->n_next) {
        EXPECT_EQ(node->n_prev, prev);
        EXPECT_EQ(node->n_hdr, &list);
        if (node->n_data)
            found.push_back(static_cast<Item *>(node->n_data)->id);
    }
    EXPECT_EQ(list.h_last, prev);
    return found;
}

class Lists : public testing::Test
{
  protected:
    void SetUp() override
    {
        FpInitHdr(&walked);
        for (int i = 0; i < 16; i++) {
            items[i].id = i;
            InitNode(&items[i].link, &items[i]);
        }
    }
    void append(int from, int to)
    {
        for (int i = from; i < to; i++)
            AppendNode(list, &items[i].link);
    }
    int step(int walk)
    {
        const auto *item = static_cast<Item *>(FpIterate(&walked, walk));
        return item ? item->id : -1;
    }

    FpHdr_t walked;
    ListHdr_t *const list = &walked.fp_hdr;
    Item items[16];
};

TEST_F(Lists, AgreeWithAModel)
{
    std::mt19937 random(1);
    std::deque<int> model;
    // Address-taken functions are the library's own; called ones are inlined here.
    void (*const append_node)(ListHdr_t *, Link_t *) = AppendNode;
    void (*const remove_node)(ListHdr_t *, Link_t *) = RemoveNode;
    EXPECT_EQ(reinterpret_cast<void *>(append_node), dlsym(RTLD_DEFAULT, "AppendNode"));
    for (int round = 0; round < 20000; round++) {
        const int id = static_cast<int>(random() % 16);
        Link_t *node = &items[id].link;
        const auto at = std::find(model.begin(), model.end(), id);
        if (at != model.end()) {
            if (random() % 4 == 0) {
                EXPECT_EQ(RemoveFirstNode(list), &items[model.front()]);
                model.pop_front();
            } else {
                (random() % 2 ? remove_node : &RemoveNode)(list, node);
                model.erase(at);
                EXPECT_TRUE(!node->n_hdr && !node->n_next && !node->n_prev && node->n_data);
            }
        } else if (model.empty() || random() % 3 == 0) {
            append_node(list, node);
            model.push_back(id);
        } else if (random() % 2) {
            InsertFirstNode(list, node);
            model.push_front(id);
        } else {
            const auto place = model.begin() + static_cast<int>(random() % model.size());
            const bool after = random() % 2;
            (after ? InsertAfterNode : InsertBeforeNode)(list, &items[*place].link, node);
            model.insert(place + after, id);
        }
        ASSERT_EQ(ids(*list), std::vector<int>(model.begin(), model.end()));
    }
}

TEST_F(Lists, MoveKeepsTheOrder)
{
    ListHdr_t source;
    InitHdr(&source);
    EXPECT_EQ(RemoveFirstNode(&source), nullptr);
    append(0, 2);
    AppendNode(&source, &items[3].link);
    AppendNode(&source, &items[2].link);
    MoveList(&source, list);
    MoveList(list, list);
    EXPECT_EQ(ids(*list), (std::vector<int>{0, 1, 3, 2}));
    EXPECT_TRUE(!source.h_first && !source.h_last);
}

TEST_F(Lists, FourWalksSeeWhatWasThereWhileNodesComeAndGo)
{
    EXPECT_EQ(FpSetMarker(&walked), -1);
    EXPECT_EQ(step(-1), -1);
    FpClearMarker(&walked, -1);

    append(0, 6);
    for (int walk = 0; walk < 4; walk++)
        ASSERT_EQ(FpSetMarker(&walked), walk);
    AppendNode(list, &items[6].link);
    InsertFirstNode(list, &items[7].link);
    for (int walk = 1; walk < 4; walk++)
        EXPECT_EQ(step(walk), 0);
    RemoveNode(list, &items[0].link); // the node just returned, and before walk 0 came to it
    RemoveNode(list, &items[3].link);
    InsertAfterNode(list, &items[1].link, &items[8].link);
    for (int id : {1, 8, 2, 4, 5, -1, -1}) {
        for (int walk = 0; walk < 4; walk++)
            EXPECT_EQ(step(walk), id);
    }
    FpClearMarker(&walked, 2);
    EXPECT_EQ(FpSetMarker(&walked), 2);
    for (int id : {7, 1, 8, 2, 4, 5, 6, -1})
        EXPECT_EQ(step(2), id);

    // Only markers are left: no data, but not empty either.
    EXPECT_EQ(FpFirstNode(&walked), &items[7]);
    EXPECT_EQ(FpLastNode(&walked), &items[6]);
    for (int id : {1, 2, 4, 5, 6, 7, 8})
        RemoveNode(list, &items[id].link);
    EXPECT_EQ(FpFirstNode(&walked), nullptr);
    EXPECT_EQ(FpLastNode(&walked), nullptr);
    FpClearMarker(&walked, 0);
    EXPECT_EQ(FpSetMarker(&walked), 0);
    for (int walk = 0; walk < 4; walk++) {
        FpClearMarker(&walked, walk);
        EXPECT_EQ(walked.fp_marker[walk].n_data, nullptr);
        EXPECT_EQ(walked.fp_post[walk].n_data, nullptr);
    }
    EXPECT_TRUE(!list->h_first && !list->h_last);
}

TEST_F(Lists, MisuseStopsTheProcess)
{
    append(0, 3);
    ListHdr_t other;
    InitHdr(&other);
    Link_t bare;
    InitNode(&bare, nullptr);
    Link_t *const first = &items[0].link;
    Link_t *const inner = &items[1].link;
    Link_t *const last = &items[2].link;
    Link_t *const spare = &items[9].link;
    const std::function<void()> misuses[] = {
        [&] { AppendNode(list, &bare); },
        [&] { InsertFirstNode(list, &bare); },
        [&] { InsertBeforeNode(list, first, &bare); },
        [&] { InsertBeforeNode(list, nullptr, spare); },
        [&] { InsertBeforeNode(list, inner, nullptr); },
        [&] { InsertBeforeNode(&other, inner, spare); },
        [&] { InsertBeforeNode(list, inner, last); },
        [&] { inner->n_prev = nullptr, InsertBeforeNode(list, inner, spare); },
        [&] { first->n_prev = inner, InsertBeforeNode(list, first, spare); },
        [&] { InsertAfterNode(list, last, &bare); },
        [&] { InsertAfterNode(list, spare, &items[10].link); },
        [&] { InsertAfterNode(list, inner, first); },
        [&] { inner->n_next = nullptr, InsertAfterNode(list, inner, spare); },
        [&] { last->n_next = inner, InsertAfterNode(list, last, spare); },
        [&] { RemoveNode(list, spare); },
        [&] { RemoveNode(&other, inner); },
        [&] { FpSetMarker(&walked), MoveList(list, &other); },
        [&] { FpClearMarker(&walked, 0); },
        [&] { FpIterate(&walked, 4); },
        [&] { FpIterate(&walked, -2); },
        [&] { FpClearMarker(&walked, 4); },
        [&] {
            for (int i = 0; i < 5; i++)
                FpSetMarker(&walked);
        },
    };
    int index = 0;
    for (const auto &misuse : misuses) {
        const auto outcome = support::run_in_child([&] {
            misuse();
            return 0;
        });
        EXPECT_TRUE(outcome.crashed()) << "misuse " << index;
        EXPECT_EQ(outcome.out, "");
        index++;
    }
}

} // namespace
