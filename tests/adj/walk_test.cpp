// The resumable walk over a doubly linked queue: the cursor lives in the anchor service,
// which moves it to a successor when the element under it is removed. Nodes are heap
// allocated and freed on removal, so that the sanitizer build catches any visit of a freed
// element.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <vector>

#include "ipclient/adj.h"
#include "ipplat/platform.h"
#include "ipplat/testctl.h"
#include "support/fixture.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kForward = 2;   // key 2: the step walks forward
constexpr std::uint32_t kBackward = 1;  // any other key walks backward

struct Item {
    ADJ_DTQ_NODE_S link;  // first, so that a position is the item's address
    int id;
};

std::uint64_t pos(const void* p) { return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(p)); }
Item* item_at(std::uint64_t position) { return reinterpret_cast<Item*>(static_cast<std::uintptr_t>(position)); }

// A queue of heap-allocated items; the head points at itself when the queue is empty.
class Queue {
public:
    Queue() { head.pstNext = head.pstPrev = &head; }
    ~Queue() {
        while (head.pstNext != &head) {
            Item* it = reinterpret_cast<Item*>(head.pstNext);
            unlink(it);
            delete it;
        }
    }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    Item* push_back(int id) {
        auto* it = new Item{{&head, head.pstPrev}, id};
        head.pstPrev->pstNext = &it->link;
        head.pstPrev = &it->link;
        items_[id] = it;
        return it;
    }
    void fill(int n) {
        for (int i = 0; i < n; ++i) push_back(i);
    }
    Item* find(int id) const { return items_.at(id); }

    // Unlinks the item, tells the anchor service (the successor in the walk's direction, 0
    // when that is the head) and frees it.
    void remove(int id, void* anchor, std::uint32_t key, bool forward) {
        Item* it = items_.at(id);
        ADJ_DTQ_NODE_S* succ = forward ? it->link.pstNext : it->link.pstPrev;
        unlink(it);
        ipp_anchor_remove(anchor, key, pos(it), succ == &head ? 0 : pos(succ));
        items_.erase(id);
        delete it;
    }

    std::vector<int> ids() const {
        std::vector<int> out;
        for (const ADJ_DTQ_NODE_S* n = head.pstNext; n != &head; n = n->pstNext) {
            out.push_back(reinterpret_cast<const Item*>(n)->id);
        }
        return out;
    }

    ADJ_DTQ_NODE_S head;

private:
    static void unlink(Item* it) {
        it->link.pstPrev->pstNext = it->link.pstNext;
        it->link.pstNext->pstPrev = it->link.pstPrev;
        it->link.pstNext = it->link.pstPrev = nullptr;
    }
    std::map<int, Item*> items_;
};

// A step that counts its calls and remembers the direction it was given.
int g_steps = 0;
std::uint32_t g_last_direction = 0;
std::uint64_t counting_step(std::uint32_t direction, std::uint64_t position, void* context, void** out) {
    ++g_steps;
    g_last_direction = direction;
    return ADJ_DtqWalkGetNext(direction, position, context, out);
}

class AdjWalkTest : public PlatformTest {
protected:
    AdjWalkTest() {
        g_steps = 0;
        g_last_direction = 0;
    }
    void TearDown() override {
        EXPECT_EQ(ipp_anchor_open_paths(), 0u) << "a walk was left registered";
        PlatformTest::TearDown();
    }

    static ADJ_DTQ_WALK_S* context_of(void* anchor, std::uint64_t handle, std::uint64_t* position = nullptr) {
        std::uint64_t p = 0;
        void* ctx = nullptr;
        if (ANCHOR_Inquire(anchor, handle, &p, &ctx) != 0) return nullptr;
        if (position != nullptr) *position = p;
        return static_cast<ADJ_DTQ_WALK_S*>(ctx);
    }

    // Walks to the end; returns the ids in the order visited.
    static std::vector<int> walk_all(std::uint64_t handle, void* anchor) {
        std::vector<int> seen;
        for (int guard = 0; guard < 1000; ++guard) {
            const std::uint64_t p = ADJ_GetDtqNext(handle, anchor, counting_step);
            if (p == 0) break;
            seen.push_back(item_at(p)->id);
        }
        return seen;
    }

    int anchor_ = 0;
    void* anchor() { return &anchor_; }
};

// ---- Edge case ----------------------------------------------------------------------------

TEST_F(AdjWalkTest, GetDtqNextAfterLastReturnedElementWasDeletedReturnsSubstitutedPositionWithoutStepping) {
    Queue q;
    q.fill(3);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    const std::uint64_t first = ADJ_GetDtqNext(h, anchor(), counting_step);
    ASSERT_EQ(first, pos(q.find(0)));
    EXPECT_EQ(g_steps, 1);
    const std::uint64_t second = pos(q.find(1));
    q.remove(0, anchor(), kForward, true);
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), second);
    EXPECT_EQ(g_steps, 1) << "the substituted position was returned without stepping";
    ADJ_DTQ_WALK_S* ctx = context_of(anchor(), h);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->ulLast, second);
    // The walk goes on from there.
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), pos(q.find(2)));
    EXPECT_EQ(g_steps, 2);
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), 0u);
    EXPECT_EQ(g_steps, 3);
    ADJ_DtqWalkUnReg(h, anchor());
}

// The substituted position is taken as the service gives it, whatever the queue holds.
TEST_F(AdjWalkTest, GetDtqNextReturnsWhatTheServiceSubstituted) {
    Queue q;
    q.fill(4);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    ASSERT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), pos(q.find(0)));
    ipp_anchor_remove(anchor(), kForward, pos(q.find(0)), pos(q.find(3)));
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), pos(q.find(3)));
    EXPECT_EQ(g_steps, 1);
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), 0u);
    ADJ_DtqWalkUnReg(h, anchor());
}

// ---- Registration -------------------------------------------------------------------------

TEST_F(AdjWalkTest, RegFillsTheContextAndBeginsAPathAtPositionZero) {
    Queue q;
    q.fill(2);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 7, 0x1234, &q.head, 0x0102030405060708ull);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(ipp_anchor_open_paths(), 1u);
    std::uint64_t position = 99;
    ADJ_DTQ_WALK_S* ctx = context_of(anchor(), h, &position);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(position, 0u);
    EXPECT_EQ(ctx->ucKind, 7);
    EXPECT_EQ(ctx->uiKey, 0x1234u);
    EXPECT_EQ(ctx->ulUser, 0x0102030405060708ull);
    EXPECT_EQ(ctx->pstHead, &q.head);
    EXPECT_EQ(ctx->ulLast, 0u);
    ADJ_DtqWalkUnReg(h, anchor());
}

TEST_F(AdjWalkTest, BeginPathFailureReturnsZeroAndFreesTheContext) {
    Queue q;
    q.fill(1);
    ipp_anchor_fail_next_begin();
    EXPECT_EQ(ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0), 0u);
    EXPECT_EQ(ipp_anchor_open_paths(), 0u);  // the context is freed: the sanitizer build reports a leak
    // The next registration works again.
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    EXPECT_NE(h, 0u);
    ADJ_DtqWalkUnReg(h, anchor());
}

TEST_F(AdjWalkTest, UnRegEndsThePathAndFreesTheContext) {
    Queue q;
    q.fill(3);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    ASSERT_NE(ADJ_GetDtqNext(h, anchor(), counting_step), 0u);
    EXPECT_EQ(ipp_anchor_open_paths(), 1u);
    ADJ_DtqWalkUnReg(h, anchor());
    EXPECT_EQ(ipp_anchor_open_paths(), 0u);
    EXPECT_EQ(context_of(anchor(), h), nullptr);
    // A walk that was ended gives nothing more.
    const int steps = g_steps;
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), 0u);
    EXPECT_EQ(g_steps, steps);
}

TEST_F(AdjWalkTest, UnRegOfZeroHandleIsIgnored) {
    Queue q;
    q.fill(2);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    ADJ_DtqWalkUnReg(0, anchor());
    EXPECT_EQ(ipp_anchor_open_paths(), 1u);
    EXPECT_EQ(walk_all(h, anchor()), (std::vector<int>{0, 1}));
    ADJ_DtqWalkUnReg(h, anchor());
    EXPECT_EQ(ipp_anchor_open_paths(), 0u);
}

TEST_F(AdjWalkTest, GetDtqNextOfUnknownPathOrOtherAnchorGivesZeroWithoutStepping) {
    Queue q;
    q.fill(2);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    int other = 0;
    EXPECT_EQ(ADJ_GetDtqNext(h, &other, counting_step), 0u);
    EXPECT_EQ(ADJ_GetDtqNext(h + 1000, anchor(), counting_step), 0u);
    EXPECT_EQ(g_steps, 0);
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), pos(q.find(0)));
    ADJ_DtqWalkUnReg(h, anchor());
}

// ---- Walking ------------------------------------------------------------------------------

TEST_F(AdjWalkTest, ForwardWalkVisitsEveryNodeOnceInOrder) {
    Queue q;
    q.fill(6);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 1, kForward, &q.head, 42);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(walk_all(h, anchor()), (std::vector<int>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(g_steps, 7);  // six elements and the end
    EXPECT_EQ(g_last_direction, kForward) << "the step is given the walk's key";
    // Finished: the context's head is cleared and the walk stays at its end.
    ADJ_DTQ_WALK_S* ctx = context_of(anchor(), h);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->pstHead, nullptr);
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), 0u);
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), 0u);
    ADJ_DtqWalkUnReg(h, anchor());
}

TEST_F(AdjWalkTest, BackwardWalkVisitsEveryNodeOnceInReverse) {
    Queue q;
    q.fill(5);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 1, kBackward, &q.head, 0);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(walk_all(h, anchor()), (std::vector<int>{4, 3, 2, 1, 0}));
    EXPECT_EQ(g_last_direction, kBackward);
    ADJ_DtqWalkUnReg(h, anchor());
}

TEST_F(AdjWalkTest, GetDtqNextStoresEachReturnedPositionAsThePathsPosition) {
    Queue q;
    q.fill(2);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    const std::uint64_t p = ADJ_GetDtqNext(h, anchor(), counting_step);
    std::uint64_t position = 0;
    ADJ_DTQ_WALK_S* ctx = context_of(anchor(), h, &position);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(position, p);
    EXPECT_EQ(ctx->ulLast, p);
    ADJ_DtqWalkUnReg(h, anchor());
}

TEST_F(AdjWalkTest, EmptyQueueGivesZeroAtOnce) {
    Queue q;
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), 0u);
    EXPECT_EQ(g_steps, 1);
    ADJ_DTQ_WALK_S* ctx = context_of(anchor(), h);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->pstHead, nullptr);
    ADJ_DtqWalkUnReg(h, anchor());

    const std::uint64_t back = ADJ_DtqWalkReg(anchor(), 0, kBackward, &q.head, 0);
    ASSERT_NE(back, 0u);
    EXPECT_EQ(ADJ_GetDtqNext(back, anchor(), counting_step), 0u);
    ADJ_DtqWalkUnReg(back, anchor());
}

TEST_F(AdjWalkTest, ForwardWalkWithRemovalsVisitsEveryRemainingElementExactlyOnce) {
    Queue q;
    q.fill(10);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    std::vector<int> seen;
    for (int guard = 0; guard < 100; ++guard) {
        const std::uint64_t p = ADJ_GetDtqNext(h, anchor(), counting_step);
        if (p == 0) break;
        const int id = item_at(p)->id;  // a freed element here is a sanitizer report
        seen.push_back(id);
        switch (id) {
            case 1:  // the element under the cursor
                q.remove(1, anchor(), kForward, true);
                break;
            case 2:  // elements ahead
                q.remove(4, anchor(), kForward, true);
                q.remove(5, anchor(), kForward, true);
                break;
            case 6:  // the element under the cursor and then its successor
                q.remove(6, anchor(), kForward, true);
                q.remove(7, anchor(), kForward, true);
                break;
            case 8:  // an element behind
                q.remove(0, anchor(), kForward, true);
                break;
            case 9:  // the last element: the cursor moves to the end
                q.remove(9, anchor(), kForward, true);
                break;
            default: break;
        }
    }
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2, 3, 6, 8, 9}));
    EXPECT_EQ(q.ids(), (std::vector<int>{2, 3, 8}));
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), 0u);
    ADJ_DtqWalkUnReg(h, anchor());
}

TEST_F(AdjWalkTest, BackwardWalkWithRemovalsVisitsEveryRemainingElementExactlyOnce) {
    Queue q;
    q.fill(8);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kBackward, &q.head, 0);
    ASSERT_NE(h, 0u);
    std::vector<int> seen;
    for (int guard = 0; guard < 100; ++guard) {
        const std::uint64_t p = ADJ_GetDtqNext(h, anchor(), counting_step);
        if (p == 0) break;
        const int id = item_at(p)->id;
        seen.push_back(id);
        if (id == 7) q.remove(7, anchor(), kBackward, false);
        if (id == 6) q.remove(3, anchor(), kBackward, false);
        if (id == 4) {
            q.remove(4, anchor(), kBackward, false);
            q.remove(2, anchor(), kBackward, false);
        }
        if (id == 0) q.remove(0, anchor(), kBackward, false);
    }
    EXPECT_EQ(seen, (std::vector<int>{7, 6, 5, 4, 1, 0}));
    EXPECT_EQ(q.ids(), (std::vector<int>{1, 5, 6}));
    ADJ_DtqWalkUnReg(h, anchor());
}

TEST_F(AdjWalkTest, RemovalsElsewhereDoNotDisturbTheWalk) {
    Queue q;
    q.fill(4);
    const std::uint64_t h = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(h, 0u);
    ASSERT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), pos(q.find(0)));
    // Another anchor and another key name other walks.
    int other = 0;
    ipp_anchor_remove(&other, kForward, pos(q.find(0)), pos(q.find(3)));
    ipp_anchor_remove(anchor(), kForward + 1, pos(q.find(0)), pos(q.find(3)));
    EXPECT_EQ(ADJ_GetDtqNext(h, anchor(), counting_step), pos(q.find(1)));
    EXPECT_EQ(g_steps, 2);
    ADJ_DtqWalkUnReg(h, anchor());
}

TEST_F(AdjWalkTest, TwoWalksOnOneQueueAreIndependent) {
    Queue q;
    q.fill(3);
    const std::uint64_t a = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    const std::uint64_t b = ADJ_DtqWalkReg(anchor(), 0, kForward, &q.head, 0);
    ASSERT_NE(a, 0u);
    ASSERT_NE(b, 0u);
    ASSERT_NE(a, b);
    EXPECT_EQ(ADJ_GetDtqNext(a, anchor(), counting_step), pos(q.find(0)));
    EXPECT_EQ(ADJ_GetDtqNext(a, anchor(), counting_step), pos(q.find(1)));
    EXPECT_EQ(ADJ_GetDtqNext(b, anchor(), counting_step), pos(q.find(0)));
    q.remove(1, anchor(), kForward, true);  // only a stands on it
    EXPECT_EQ(ADJ_GetDtqNext(a, anchor(), counting_step), pos(q.find(2)));
    EXPECT_EQ(ADJ_GetDtqNext(b, anchor(), counting_step), pos(q.find(2)));
    ADJ_DtqWalkUnReg(a, anchor());
    ADJ_DtqWalkUnReg(b, anchor());
    EXPECT_EQ(ipp_anchor_open_paths(), 0u);
}

// ---- The step for a doubly linked queue ---------------------------------------------------

TEST_F(AdjWalkTest, WalkGetNextStartsAtTheFirstOrLastNode) {
    Queue q;
    q.fill(3);
    ADJ_DTQ_WALK_S ctx{};
    ctx.pstHead = &q.head;
    void* out = nullptr;
    EXPECT_EQ(ADJ_DtqWalkGetNext(2, 0, &ctx, &out), pos(q.find(0)));
    EXPECT_EQ(out, &ctx);
    EXPECT_EQ(ctx.ulLast, ~std::uint64_t{0});
    EXPECT_EQ(ctx.pstHead, &q.head);
    out = nullptr;
    ctx.ulLast = 5;
    EXPECT_EQ(ADJ_DtqWalkGetNext(1, 0, &ctx, &out), pos(q.find(2)));
    EXPECT_EQ(out, &ctx);
    EXPECT_EQ(ctx.ulLast, ~std::uint64_t{0});
    EXPECT_EQ(ADJ_DtqWalkGetNext(0, 0, &ctx, &out), pos(q.find(2)));
    EXPECT_EQ(ADJ_DtqWalkGetNext(3, 0, &ctx, &out), pos(q.find(2)));
}

TEST_F(AdjWalkTest, WalkGetNextFollowsNextOrPreviousPointers) {
    Queue q;
    q.fill(3);
    ADJ_DTQ_WALK_S ctx{};
    ctx.pstHead = &q.head;
    void* out = nullptr;
    EXPECT_EQ(ADJ_DtqWalkGetNext(2, pos(q.find(0)), &ctx, &out), pos(q.find(1)));
    EXPECT_EQ(ADJ_DtqWalkGetNext(2, pos(q.find(1)), &ctx, &out), pos(q.find(2)));
    EXPECT_EQ(ADJ_DtqWalkGetNext(1, pos(q.find(2)), &ctx, &out), pos(q.find(1)));
    EXPECT_EQ(ctx.pstHead, &q.head);
    // Reaching the head ends the walk and clears the context's head.
    EXPECT_EQ(ADJ_DtqWalkGetNext(1, pos(q.find(0)), &ctx, &out), 0u);
    EXPECT_EQ(ctx.pstHead, nullptr);
    EXPECT_EQ(ctx.ulLast, ~std::uint64_t{0});
    EXPECT_EQ(out, &ctx);
    // Once finished it stays finished.
    EXPECT_EQ(ADJ_DtqWalkGetNext(2, 0, &ctx, &out), 0u);
    ctx.pstHead = &q.head;
    EXPECT_EQ(ADJ_DtqWalkGetNext(2, pos(q.find(2)), &ctx, &out), 0u);
    EXPECT_EQ(ctx.pstHead, nullptr);
}

TEST_F(AdjWalkTest, WalkGetNextEndsOnEmptyQueueAndOnNullCandidate) {
    Queue q;
    ADJ_DTQ_WALK_S ctx{};
    ctx.pstHead = &q.head;
    void* out = nullptr;
    EXPECT_EQ(ADJ_DtqWalkGetNext(2, 0, &ctx, &out), 0u);
    EXPECT_EQ(ctx.pstHead, nullptr);
    EXPECT_EQ(out, &ctx);

    // A node whose next pointer is null ends a forward walk.
    ADJ_DTQ_NODE_S head{};
    ADJ_DTQ_NODE_S lone{nullptr, &head};
    head.pstNext = &lone;
    head.pstPrev = &lone;
    ctx.pstHead = &head;
    ctx.ulLast = 0;
    EXPECT_EQ(ADJ_DtqWalkGetNext(2, 0, &ctx, &out), pos(&lone));
    EXPECT_EQ(ADJ_DtqWalkGetNext(2, pos(&lone), &ctx, &out), 0u);
    EXPECT_EQ(ctx.pstHead, nullptr);
    EXPECT_EQ(ctx.ulLast, ~std::uint64_t{0});
}

}  // namespace
}  // namespace ipt
