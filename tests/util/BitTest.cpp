#include <gtest/gtest.h>

#include <vector>

#include <vesk/Bit.h>

#include "support/Support.hpp"

namespace {

// Owns a set for the length of a test.
struct Bits {
        Bit_T B;
        explicit Bits(std::initializer_list<unsigned> members = {}) : B(Bit_new()) {
                for (unsigned n : members)
                        Bit_put(B, n);
        }
        explicit Bits(Bit_T b) : B(b) {}
        ~Bits() { Bit_free(&B); }
        operator Bit_T() const { return B; }
};

std::vector<unsigned> members(Bit_T B) {
        std::vector<unsigned> v;
        Bit_map(
            B, [](unsigned n, void* cl) { static_cast<std::vector<unsigned>*>(cl)->push_back(n); },
            &v);
        return v;
}

using V = std::vector<unsigned>;

}  // namespace

TEST(Bit, PutRemoveMemberAndLength) {
        Bits b;
        EXPECT_EQ(Bit_put(b, 7), 1);
        EXPECT_EQ(Bit_put(b, 7), 0);
        EXPECT_EQ(Bit_length(b), 1);
        EXPECT_EQ(Bit_put(b, 0), 1);
        EXPECT_EQ(Bit_put(b, 0xFFFFFFFFu), 1);
        EXPECT_EQ(Bit_length(b), 3);
        EXPECT_TRUE(Bit_member(b, 0xFFFFFFFFu));
        EXPECT_FALSE(Bit_member(b, 8));
        EXPECT_EQ(Bit_remove(b, 7), 1);
        EXPECT_EQ(Bit_remove(b, 7), 0);
        EXPECT_EQ(Bit_length(b), 2);
        Bit_clear(b);
        EXPECT_EQ(Bit_length(b), 0);
        EXPECT_EQ(Bit_next(b), -1);
}

TEST(Bit, WalksInBothDirectionsAndByIterator) {
        Bits b{5, 1, 1000000, 3};
        EXPECT_EQ(members(b), (V{1, 3, 5, 1000000}));
        V down;
        Bit_rmap(
            b, [](unsigned n, void* cl) { static_cast<V*>(cl)->push_back(n); }, &down);
        EXPECT_EQ(down, (V{1000000, 5, 3, 1}));
        V walk;
        Bit_rewind(b);
        for (long long n; (n = Bit_next(b)) != -1;)
                walk.push_back(static_cast<unsigned>(n));
        EXPECT_EQ(walk, members(b));
        EXPECT_EQ(Bit_next(b), -1);  // stays at the end
        Bit_rewind(b);
        EXPECT_EQ(Bit_next(b), 1);

        Bits empty;
        EXPECT_EQ(Bit_next(empty), -1);
        Bits zero{0};
        EXPECT_EQ(Bit_next(zero), 0);  // member 0 is not mistaken for the end
        EXPECT_EQ(Bit_next(zero), -1);
}

TEST(Bit, EqualityAndProperSubset) {
        Bits a{1, 2, 3}, b{3, 2, 1}, c{1, 2}, d{1, 2, 4};
        EXPECT_TRUE(Bit_eq(a, a));
        EXPECT_TRUE(Bit_eq(a, b));
        EXPECT_FALSE(Bit_eq(a, c));
        EXPECT_FALSE(Bit_eq(a, d));
        EXPECT_FALSE(Bit_eq(a, nullptr));
        EXPECT_TRUE(Bit_eq(nullptr, nullptr));

        EXPECT_TRUE(Bit_lt(c, a));
        EXPECT_FALSE(Bit_lt(a, b));  // equal is not proper
        EXPECT_FALSE(Bit_lt(a, c));
        EXPECT_FALSE(Bit_lt(c, Bits{1, 3, 4}));  // shorter, but not inside
        EXPECT_TRUE(Bit_lt(nullptr, a));
        EXPECT_FALSE(Bit_lt(a, nullptr));
}

TEST(Bit, AlgebraMakesNewSetsAndLeavesOperands) {
        Bits s{1, 2, 3, 10}, t{3, 4, 10, 20};
        EXPECT_EQ(members(Bits(Bit_union(s, t))), (V{1, 2, 3, 4, 10, 20}));
        EXPECT_EQ(members(Bits(Bit_inter(s, t))), (V{3, 10}));
        EXPECT_EQ(members(Bits(Bit_inter(Bits{3}, t))), (V{3}));  // smaller first: swapped
        EXPECT_EQ(members(Bits(Bit_minus(s, t))), (V{1, 2}));
        EXPECT_EQ(members(Bits(Bit_minus(t, s))), (V{4, 20}));
        EXPECT_EQ(members(Bits(Bit_diff(s, t))), (V{1, 2, 4, 20}));
        EXPECT_EQ(members(s), (V{1, 2, 3, 10}));
        EXPECT_EQ(members(t), (V{3, 4, 10, 20}));
}

TEST(Bit, AlgebraWithOneAbsentOperand) {
        Bits s{1, 2};
        Bits u(Bit_union(s, nullptr));
        EXPECT_NE(u.B, s.B);  // a copy, not the same set
        EXPECT_TRUE(Bit_eq(u, s));
        EXPECT_TRUE(Bit_eq(Bits(Bit_union(nullptr, s)), s));
        EXPECT_EQ(Bit_length(Bits(Bit_inter(nullptr, s))), 0);
        EXPECT_TRUE(Bit_eq(Bits(Bit_minus(s, nullptr)), s));
        EXPECT_EQ(Bit_length(Bits(Bit_minus(nullptr, s))), 0);
        EXPECT_TRUE(Bit_eq(Bits(Bit_diff(nullptr, s)), s));
}
